#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/childProcess.h"

namespace testSupport {

// Adds a file with these entries to the runtime journal; each as "NAME=value;NAME=value" with any
// bytes but semicolons. The first one's time is 1700000000000001 microseconds, the next one's one
// more. A field _BOOT_ID is added to each. Throws std::runtime_error.
void writeJournal(const std::vector<std::string>& entries);

// The socket to which the journal daemon forwards messages. Its queue is as long as on a system
// that systemd has booted. Throws std::system_error.
Descriptor makeForwardingSocket();

// The real journal daemon, with its sockets, serving the runtime journal of the sandbox. It stores
// nothing elsewhere, limits no rate and reads kernel messages only when asked to. It forwards
// messages to a socket at /run/systemd/journal/syslog if there is one. What it has stored remains
// when it ends. One at a time.
class Journald {
public:
    // Returns when the daemon accepts entries. Throws std::runtime_error.
    explicit Journald(bool readsKernelLog = false);
    ~Journald();

    // Waits while the daemon's queue is full. The daemon adds fields about the sender and its own
    // time stamp.
    void log(int priority, const std::string& identifier, const std::string& message);
    // Returns when all that was sent before is in the journal's files.
    void sync();
    // Returns when the active file is archived and a new one begun.
    void rotate();

private:
    std::unique_ptr<ChildProcess> daemon_;
    Descriptor socket_;
};

} // namespace testSupport
