#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/childProcess.h"

namespace testSupport {

struct SyslogMessage {
    int priority;     // facility and severity, as given to syslog()
    std::string text; // without date, identifier and process number
};

// Receives what the sandbox's processes say by syslog(), as long as it lives. A process that has
// spoken to another receiver before finds this one with its next message, in this process and
// where the former receiver is gone.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();

    // The messages since the last call, in the order of their arrival; all that this process has
    // said before are among them. For the use of one thread.
    std::vector<SyslogMessage> take();
    // True as soon as a message not yet taken contains the text.
    bool waitFor(std::string_view text, std::chrono::milliseconds limit);

private:
    void receive();

    Descriptor socket_;
    std::mutex mutex_;
    std::vector<SyslogMessage> messages_; // guarded by mutex_
    std::condition_variable received_;
    std::thread receiver_;
};

} // namespace testSupport
