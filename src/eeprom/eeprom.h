#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "boardSupport/eepromBase.h"
#include "eeprom/framLayout.h"
#include "logger/logSink.h"
#include "support/fairMutex.h"
#include "support/threadSafety.h"

namespace qwk {

/// The FRAM cache: journal entries that survive a power cut until they are in the log file. An
/// object is made for one operation, by one thread, and deleted right after; all state is in the
/// chip.
///
/// Each whole operation holds the process's chip lock, which is always taken before the lock of the
/// log sink, so no transfers of two objects mix. It is not held while the device is being opened or
/// a dump is printed.
class Eeprom : public boardSupport::EepromBase {
public:
    /// Opens the board's chip, trying every 100 ms until `timeoutMs` milliseconds have passed, or
    /// for ever when `timeoutMs` is negative. Returns the object, which the caller deletes; null
    /// after the time-out, or when the daemon is asked to stop before the device opened.
    static Eeprom* open(LogSink* logSink, int timeoutMs);
    /// The same; calls `missing` once, when the first try has failed and more follow.
    static Eeprom* open(LogSink* logSink, int timeoutMs, const std::function<void()>& missing);

    /// Opens the chip and, while `logSink` was never given an entry, loads the chip's entries into
    /// its recent-entry buffer. `logSink` is not owned and may be null; its lock is taken and given
    /// back even when the device did not open. The caller does not hold it.
    Eeprom(const std::string& device, int slaveAddress, LogSink* logSink);
    ~Eeprom() override = default;

    /// Stores one entry, flushing the cache before when it has no room. A failure is reported; the
    /// entry is then in the recent-entry buffer only, unless header copy 0 was written.
    void append(std::int32_t priority, const std::uint64_t& time, const std::string& message);

    /// Whether the last append of this object had no failure to report.
    bool hasStored() const { return hasStored_; }

    /// Hands every entry to the sink, oldest first, and empties the cache. Returns 0, or -1 when
    /// the chip holds no valid header, its headers cannot be reset or there is no sink.
    int flush();

    /// Writes zeros over the chip and empties the recent-entry buffer; 0 or -1.
    int clear();

    /// The base's dump, declared again because it has to read the chip under the chip lock, which
    /// the base does not know. A slow reader of `out` delays no one else.
    int hexDump(std::FILE* out);

private:
    /// Fair, because a chip that does not answer keeps the main loop in it for seconds at a time.
    static FairMutex chipMutex_;

    void load() QWK_REQUIRES(chipMutex_);
    int flushLocked() QWK_REQUIRES(chipMutex_);
    int resetHeaders(std::uint32_t nextId) QWK_REQUIRES(chipMutex_);
    /// Writes zeros over the chip; 0 or -1.
    int wipe() QWK_REQUIRES(chipMutex_);

    /// Reads the record at `address` into `buffer`; 0, or -1 when its length is impossible or a
    /// transfer fails.
    int readKlv(std::uint32_t address) QWK_REQUIRES(chipMutex_);
    /// 0 and the values of header copy 0 or 1 when that copy is valid, else -1.
    int checkHeader(int copy, framLayout::Header& header) QWK_REQUIRES(chipMutex_);
    /// 0 and the cache's state when a header copy is valid (the other one is repaired), else -1.
    int readHeaders(std::uint32_t& end, std::uint32_t& count, std::uint32_t& nextId)
        QWK_REQUIRES(chipMutex_);
    int writeHeader(int copy, std::uint32_t end, std::uint32_t count, std::uint32_t nextId)
        QWK_REQUIRES(chipMutex_);
    /// Copy 0 and, only when that succeeded, copy 1; 0 or -1.
    int writeHeaders(const framLayout::Header& header) QWK_REQUIRES(chipMutex_);
    /// 0 with `entry` and the record's `length`, or -1 when there is no usable entry there.
    int readLogEntry(std::uint32_t address, framLayout::Entry& entry, std::uint32_t& length)
        QWK_REQUIRES(chipMutex_);
    int writeLogEntry(std::uint32_t address, std::int32_t priority, const std::uint64_t& time,
                      const std::string& message) QWK_REQUIRES(chipMutex_);

    /// Calls visit(sequence number, entry) for each record; `visited` counts them. True when the
    /// chain of records ends exactly at `end`.
    template<typename Visit>
    bool walkEntries(std::uint32_t end, std::uint32_t firstId, std::uint32_t& visited, Visit visit)
        QWK_REQUIRES(chipMutex_, logSink);

    LogSink* const logSink;
    /// One record and a NUL after it, or the zeros of a clear.
    const std::unique_ptr<std::uint8_t[]> buffer;
    bool hasStored_ = false;
};

} // namespace qwk
