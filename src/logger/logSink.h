#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// What the FRAM cache asks of the log. An entry is described by its sequence number, its syslog
/// priority, its time stamp in microseconds since 1970-01-01 00:00 UTC, and its text. With lock()
/// and unlock() a sink serves as a standard lockable, as in std::unique_lock<LogSink>.
class LogSink {
public:
    virtual ~LogSink() = default;

    /// Sets `next` to the number behind that of the log file's last line, or to 0.
    virtual void nextSequenceNumber(std::uint32_t& next) = 0;

    /// Writes the entry as one line into the log file. The caller holds the lock.
    virtual void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                      const std::string& message) = 0;

    /// Adds the entry to the recent-entry buffer and wakes the streams. The caller holds the lock.
    virtual void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                            const std::string& message) = 0;

    /// Empties the recent-entry buffer. The caller holds the lock.
    virtual void clearCache() = 0;

    /// Whether addToCache was ever called. The caller holds the lock.
    virtual bool isCacheFilled() = 0;

    /// The lock of the log file and the recent-entry buffer; it does not nest.
    virtual void lock() = 0;
    virtual void unlock() = 0;
};

} // namespace qwk
