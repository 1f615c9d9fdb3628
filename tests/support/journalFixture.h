#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/childProcess.h"

namespace testSupport {

using JournalFields = std::vector<std::pair<std::string, std::string>>; // name, any bytes

struct JournalEntry {
    std::uint64_t realtime; // microseconds since 1970
    JournalFields fields;
};

// Adds a file with these entries to the runtime journal. Readers find all entries in the order of
// writing, also over several calls and with time stamps that go back, and before those of a
// Journald. Each entry has a field _BOOT_ID in addition. Throws std::runtime_error.
void writeJournal(const std::vector<JournalEntry>& entries);

// The real journal daemon, with its sockets, serving the runtime journal of the sandbox. It stores
// nothing elsewhere, limits no rate and reads no kernel messages. What it has stored remains when
// it ends. One at a time.
class Journald {
public:
    // Returns when the daemon accepts entries. The configuration consists of further lines for the
    // section [Journal]. Throws std::runtime_error.
    explicit Journald(const std::string& configuration = {});
    ~Journald();

    // Both wait while the daemon's queue is full. The first sends PRIORITY, SYSLOG_IDENTIFIER,
    // SYSLOG_PID and MESSAGE; the daemon adds fields about the sender and its own time stamp.
    void log(int priority, const std::string& identifier, const std::string& message);
    void send(const JournalFields& fields);

    // Returns when all that was sent before is in the journal's files.
    void sync();
    // Returns when the active file is archived and a new one begun.
    void rotate();

private:
    std::unique_ptr<ChildProcess> daemon_;
    Descriptor socket_;
};

} // namespace testSupport
