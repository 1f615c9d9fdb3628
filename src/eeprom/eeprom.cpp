#include "eeprom/eeprom.h"

#include <algorithm>
#include <cassert>
#include <chrono>

#include "support/diagnostics.h"
#include "support/paths.h"
#include "support/stopRequest.h"

namespace qwk {

using namespace framLayout;

namespace {

constexpr std::chrono::milliseconds openRetryInterval{100};

std::uint32_t headerAddress(int copy) {
    assert(copy == 0 || copy == 1);
    return static_cast<std::uint32_t>(copy) * headerSize;
}

void reportUnexpectedKey(const std::uint8_t* key) {
    report(LOG_ERR, "Unexpected header key (%c%c%c%c)", key[0], key[1], key[2], key[3]);
}

} // namespace

FairMutex Eeprom::chipMutex_;

Eeprom* Eeprom::open(LogSink* logSink, int timeoutMs) {
    const auto ignoreMissing = [] {};
    return open(logSink, timeoutMs, ignoreMissing);
}

Eeprom* Eeprom::open(LogSink* logSink, int timeoutMs, const std::function<void()>& missing) {
    const std::int64_t interval = openRetryInterval.count();
    std::int64_t retries = (timeoutMs + interval / 2) / interval;
    for (bool isFirst = true;; isFirst = false) {
        auto eeprom = std::make_unique<Eeprom>(eepromDevicePath, eepromSlaveAddress, logSink);
        if (eeprom->fd >= 0)
            return eeprom.release();
        eeprom.reset();
        if (timeoutMs >= 0 && --retries < 0)
            return nullptr;
        if (isFirst)
            missing();
        stopRequest().sleepFor(openRetryInterval);
        if (stopRequest().isRequested())
            return nullptr;
    }
}

Eeprom::Eeprom(const std::string& device, int slaveAddress, LogSink* sink)
    : EepromBase(device, slaveAddress), logSink(sink), buffer(new std::uint8_t[chipSize + 1]) {
    offset = 0;
    size = chipSize;
    // Also for a device that did not open: its headers cannot be read, so nothing is loaded.
    if (logSink != nullptr) {
        const Held<FairMutex> chip(chipMutex_);
        load();
    }
}

void Eeprom::load() {
    const Held<LogSink> held(*logSink);
    if (logSink->isCacheFilled())
        return;
    std::uint32_t end;
    std::uint32_t count;
    std::uint32_t nextId;
    if (readHeaders(end, count, nextId) != 0)
        return;
    std::uint32_t loaded = 0;
    const bool complete =
        walkEntries(end, nextId - count, loaded,
                    [this](std::uint32_t id, const Entry& entry) QWK_REQUIRES(logSink) {
                        logSink->addToCache(id, entry.priority, entry.time, entry.message);
                    });
    if (complete)
        report(LOG_INFO, "%d log entries read from cache.", static_cast<int>(count));
    else
        report(LOG_ERR, "FRAM cache corrupted.");
}

void Eeprom::append(std::int32_t priority, const std::uint64_t& time, const std::string& message) {
    const Held<FairMutex> chip(chipMutex_);
    std::uint32_t end = entryAreaStart;
    std::uint32_t count = 0;
    std::uint32_t nextId = 0;
    if (readHeaders(end, count, nextId) != 0) {
        // Searches the log file without the sink's lock, for which streams would have to wait: only
        // a flush writes or rolls that file, and the chip lock keeps flushes out.
        if (logSink != nullptr)
            logSink->nextSequenceNumber(nextId);
        report(LOG_WARNING, "Header of FRAM cache either invalid or uninitialised.");
    }
    const std::uint32_t length = entrySize(message);
    // A record may end exactly at the chip's end. Headers whose `end` is beyond it flush as well.
    if (end + length > chipSize) {
        static_cast<void>(flushLocked()); // reported there; the new entry must be stored anyway
        end = entryAreaStart;
        count = 0;
    }
    // Clients see the entry before it is in the chip, so they see it even when the chip fails. No
    // flush can come in between, because this thread holds the chip lock.
    if (logSink != nullptr) {
        const Held<LogSink> held(*logSink);
        logSink->addToCache(nextId, priority, time, message);
    }
    // The record first, then copy 0: at a power cut the headers never cover half a record.
    hasStored_ = writeLogEntry(end, priority, time, message) == 0 &&
                 writeHeaders({end + length, count + 1, nextId + 1}) == 0;
    if (!hasStored_)
        report(LOG_ERR, "Writing log to FRAM cache failed.");
}

int Eeprom::flush() {
    const Held<FairMutex> chip(chipMutex_);
    return flushLocked();
}

int Eeprom::flushLocked() {
    if (logSink == nullptr)
        return -1;
    Held<LogSink> held(*logSink);
    // Before the headers are known to be good: the entries that the buffer shows either move to the
    // log file now, where clients find them, or are lost with the headers already.
    logSink->clearCache();
    std::uint32_t end;
    std::uint32_t count;
    std::uint32_t nextId;
    if (readHeaders(end, count, nextId) != 0)
        return -1;
    // The chip is already as the reset would leave it. Any other count contradicts `end`.
    if (end == entryAreaStart && count == 0)
        return 0;
    std::uint32_t written = 0;
    const bool complete =
        walkEntries(end, nextId - count, written,
                    [this](std::uint32_t id, const Entry& entry) QWK_REQUIRES(logSink) {
                        logSink->sink(id, entry.priority, entry.time, entry.message);
                    });
    // Releasing the lock puts the lines on stable storage: only then may the chip drop its entries.
    held.unlock();
    if (!complete)
        report(LOG_ERR, "FRAM cache corrupted.");
    report(LOG_INFO, "%d log entries written, next sequence number is [%08x].",
           static_cast<int>(written), nextId);
    return resetHeaders(nextId);
}

int Eeprom::resetHeaders(std::uint32_t nextId) {
    if (writeHeaders({entryAreaStart, 0, nextId}) == 0)
        return 0;
    report(LOG_ERR, "Cannot write headers.");
    return -1;
}

int Eeprom::clear() {
    const Held<FairMutex> chip(chipMutex_);
    if (logSink == nullptr)
        return wipe();
    const Held<LogSink> held(*logSink);
    const int result = wipe();
    logSink->clearCache();
    return result;
}

int Eeprom::wipe() {
    std::fill_n(buffer.get(), chipSize, std::uint8_t{0});
    if (write(0, buffer.get(), chipSize) == int{chipSize})
        return 0;
    report(LOG_ERR, "Clearing of FRAM failed.");
    return -1;
}

int Eeprom::hexDump(std::FILE* out) {
    Image image;
    {
        const Held<FairMutex> chip(chipMutex_);
        if (readImage(image) != 0)
            return -1;
    }
    printImage(image, out);
    return 0;
}

int Eeprom::readKlv(std::uint32_t address) {
    // Addresses wrap at 16 bits, as on the wire.
    if (read(static_cast<std::uint16_t>(address), buffer.get(), klvHeadSize) < 0)
        return -1;
    // A length below the head's would make the rest negative, one beyond the chip's size would run
    // over the buffer. A cleared chip has 0 here, a blank one 0xFFFF.
    const std::uint32_t length = klvLength(buffer.get());
    if (length < klvHeadSize || length >= chipSize)
        return -1;
    if (read(static_cast<std::uint16_t>(address + klvHeadSize), buffer.get() + klvHeadSize,
             static_cast<std::uint16_t>(length - klvHeadSize)) < 0)
        return -1;
    buffer[length] = 0;
    return 0;
}

int Eeprom::checkHeader(int copy, Header& header) {
    if (readKlv(headerAddress(copy)) != 0)
        return -1;
    // The length tells whether the fields are at their places, the key whether this is a header at
    // all, and the CRC whether a power cut left it half written.
    const std::uint8_t* block = buffer.get();
    if (klvLength(block) != headerSize) {
        report(LOG_ERR, "Unexpected size of header block (%d)", static_cast<int>(klvLength(block)));
        return -1;
    }
    if (!hasHeaderKey(block)) {
        reportUnexpectedKey(block);
        return -1;
    }
    if (storedCrc(block) != computedCrc(block)) {
        report(LOG_ERR, "Invalid CRC of header block");
        return -1;
    }
    header = decodeHeader(block);
    return 0;
}

int Eeprom::readHeaders(std::uint32_t& end, std::uint32_t& count, std::uint32_t& nextId) {
    Header copies[2];
    const bool valid[2] = {checkHeader(0, copies[0]) == 0, checkHeader(1, copies[1]) == 0};
    if (!valid[0] && !valid[1])
        return -1;
    // Copy 0 is written first, so where both are valid it is never the older one.
    const int chosen = valid[0] ? 0 : 1;
    end = copies[chosen].end;
    count = copies[chosen].count;
    nextId = copies[chosen].nextId;
    // Two valid copies stay as they are, even when they differ: a rewrite would leave the chip with
    // one copy while it lasts, and the next append writes both anyway. A failed repair leaves one
    // good copy, which is enough until the next operation tries again.
    if (!valid[1 - chosen])
        static_cast<void>(writeHeader(1 - chosen, end, count, nextId));
    return 0;
}

int Eeprom::writeHeader(int copy, std::uint32_t end, std::uint32_t count, std::uint32_t nextId) {
    if (copy != 0 && copy != 1)
        return -1;
    const auto block = encodeHeader({end, count, nextId});
    return write(static_cast<std::uint16_t>(headerAddress(copy)), block.data(), headerSize) < 0 ? -1
                                                                                                : 0;
}

int Eeprom::writeHeaders(const Header& header) {
    // After a failure copy 1 is not touched: it may be the only good one.
    if (writeHeader(0, header.end, header.count, header.nextId) != 0)
        return -1;
    return writeHeader(1, header.end, header.count, header.nextId);
}

int Eeprom::readLogEntry(std::uint32_t address, Entry& entry, std::uint32_t& length) {
    if (readKlv(address) != 0) {
        report(LOG_ERR, "Cannot read KLV for log entry at %d", static_cast<int>(address));
        return -1;
    }
    if (!hasEntryKey(buffer.get())) {
        reportUnexpectedKey(buffer.get());
        return -1;
    }
    // A shorter record would take its fields from the bytes that follow it.
    length = klvLength(buffer.get());
    if (length < minEntrySize)
        return -1;
    decodeEntry(buffer.get(), entry);
    return 0;
}

int Eeprom::writeLogEntry(std::uint32_t address, std::int32_t priority, const std::uint64_t& time,
                          const std::string& message) {
    const std::uint32_t length = encodeEntry(buffer.get(), priority, time, message);
    assert(address + length <= chipSize);
    return write(static_cast<std::uint16_t>(address), buffer.get(),
                 static_cast<std::uint16_t>(length)) < 0
               ? -1
               : 0;
}

template<typename Visit>
bool Eeprom::walkEntries(std::uint32_t end, std::uint32_t firstId, std::uint32_t& visited,
                         Visit visit) {
    Entry entry;
    std::uint32_t address = entryAreaStart;
    for (visited = 0; address < end; ++visited) {
        std::uint32_t length;
        if (readLogEntry(address, entry, length) != 0)
            return false;
        visit(firstId + visited, entry);
        address += length;
    }
    // Not so when the last record reaches beyond `end`, nor when `end` is before the area.
    return address == end;
}

} // namespace qwk
