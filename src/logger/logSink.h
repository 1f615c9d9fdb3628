#pragma once

#include <cstdint>
#include <string>

#include "support/threadSafety.h"

namespace qwk {

/// The log as the FRAM cache uses it. An entry has a sequence number, a syslog priority, a time
/// stamp in microseconds since 1970-01-01 00:00 UTC, and a text. The lock protects the log file and
/// the recent-entry buffer; it does not nest.
class QWK_LOCKABLE LogSink {
public:
    virtual ~LogSink() = default;

    /// Sets `next` to the number after the last line of the log file, or to 0.
    virtual void nextSequenceNumber(std::uint32_t& next) = 0;

    /// Writes the entry as one line into the log file.
    virtual void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                      const std::string& message) QWK_REQUIRES(this) = 0;

    /// Adds the entry to the recent-entry buffer and wakes the streams.
    virtual void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                            const std::string& message) QWK_REQUIRES(this) = 0;

    /// Empties the recent-entry buffer.
    virtual void clearCache() QWK_REQUIRES(this) = 0;

    /// Whether addToCache was ever called.
    virtual bool isCacheFilled() QWK_REQUIRES(this) = 0;

    virtual void lock() QWK_ACQUIRES() = 0;
    virtual void unlock() QWK_RELEASES() = 0;
};

} // namespace qwk
