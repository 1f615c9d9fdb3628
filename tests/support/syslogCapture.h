#pragma once

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/childProcess.h"

namespace testSupport {

struct SyslogMessage {
    int priority;     ///< facility and severity, as given to syslog()
    std::string text; ///< without date, identifier and process number
};

/// Receives what the sandbox's processes say by syslog(), as long as it lives. A process that has
/// spoken to another receiver before finds this one with its next message, in this process and
/// where the former receiver is closed.
class SyslogCapture {
public:
    SyslogCapture() {
        closelog(); // the C library stays connected to a former receiver otherwise
        unlink(path);
        sockaddr_un address{AF_UNIX, {}};
        std::strcpy(address.sun_path, path);
        if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        receiver_ = std::thread(&SyslogCapture::receive, this);
    }
    ~SyslogCapture() {
        unlink(path);
        shutdown(socket_.get(), SHUT_RDWR); // wakes the receiver
        receiver_.join();
        closelog();
    }

    /// The messages since the last call, in the order of their arrival; all that this process has
    /// said before are among them. For the use of one thread.
    std::vector<SyslogMessage> take() {
        constexpr const char* mark = "-- all before this was received --";
        syslog(LOG_DEBUG, "%s", mark);
        waitFor(mark, std::chrono::hours(1));
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.erase(find(mark));
        return std::exchange(messages_, {});
    }
    /// True as soon as a message not yet taken contains the text.
    bool waitFor(std::string_view text, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return received_.wait_for(lock, limit, [&] { return find(text) != messages_.end(); });
    }

private:
    static constexpr const char* path = "/dev/log";

    std::vector<SyslogMessage>::iterator find(std::string_view text) {
        const auto contains = [&](const SyslogMessage& message) {
            return message.text.find(text) != std::string::npos;
        };
        return std::find_if(messages_.begin(), messages_.end(), contains);
    }
    // A thread, because the kernel queues as few as ten datagrams and syslog() waits from then on.
    void receive() {
        std::vector<char> buffer(1U << 18U);
        for (ssize_t count;
             (count = qwk::readSome(socket_.get(), buffer.data(), buffer.size())) > 0;) {
            // "<30>Jan  1 00:00:00 identifier[123]: text"
            const std::string datagram(buffer.data(), static_cast<std::size_t>(count));
            const std::size_t text = datagram.find(": ") + 2;
            const std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back({std::atoi(datagram.c_str() + 1), datagram.substr(text)});
            received_.notify_all();
        }
    }

    const Descriptor socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::mutex mutex_;
    std::vector<SyslogMessage> messages_; // guarded by mutex_
    std::condition_variable received_;
    std::thread receiver_;
};

} // namespace testSupport
