#include "decode/recordScan.h"

#include <algorithm>
#include <optional>

namespace qwk::decode {

using namespace framLayout;

namespace {

constexpr std::int32_t highestPriority = 7;
// 2106-02-07. The earliest time is 0: a board without a clock of its own starts in 1970.
constexpr std::uint64_t timeLimit = (std::uint64_t{1} << 32) * 1'000'000;

class Scanner {
public:
    Scanner(const Image& image, std::uint32_t to, AreaEnd end)
        : image_(image), to_(to), isFilled_(end == AreaEnd::lastRecord) {}

    Scan scan(std::uint32_t from) const {
        Scan found;
        for (std::uint32_t at = from; at < to_;) {
            if (const auto record = expectedRecord(at)) {
                found.records.push_back(*record);
                at += record->size;
            } else {
                const std::uint32_t next = nextRecord(at + 1);
                found.gaps.push_back({at, next});
                at = next;
            }
        }
        return found;
    }

private:
    struct Head {
        bool keyIsRight;
        bool sizeIsPossible; // and the record lies within the area
        bool priorityIsPossible;
        bool timeIsPossible;
        std::uint32_t size;
    };

    bool hasHead(std::uint32_t at) const { return at + minEntrySize <= to_; }

    // Call it where there is a head.
    Head head(std::uint32_t at) const {
        const std::uint8_t* record = &image_[at];
        const std::uint32_t size = klvLength(record);
        const Entry entry = entryOfSize(record, minEntrySize); // without its message
        return {hasEntryKey(record),
                size >= minEntrySize && size <= maxEntrySize && at + size <= to_,
                entry.priority <= highestPriority, entry.time < timeLimit, size};
    }

    bool isRecord(std::uint32_t at) const {
        if (!hasHead(at) || !hasEntryKey(&image_[at]))
            return false;
        const Head fields = head(at);
        return fields.sizeIsPossible && fields.priorityIsPossible && fields.timeIsPossible &&
               (isFilled_ || !endsEarly(at, fields.size));
    }

    // A zero byte in a message is older than the record: writing the record was cut off.
    bool endsEarly(std::uint32_t at, std::uint32_t size) const {
        return std::find(&image_[at] + messageAt, &image_[at] + size, 0) != &image_[at] + size;
    }

    // Whether the chain of records can go on at `at`, or ends there. It asks for less than
    // isRecord: an entry of any priority may follow a record.
    bool continuesAt(std::uint32_t at) const {
        if (at == to_)
            return isFilled_;
        if (!hasHead(at))
            return false;
        const Head fields = head(at);
        return fields.keyIsRight && fields.sizeIsPossible;
    }

    // The address of the next record, from `at` on, or the area's end.
    std::uint32_t nextRecord(std::uint32_t at) const {
        while (at < to_ && !isRecord(at))
            ++at;
        return std::min(at, to_);
    }

    // The record at the area's start, or right after another record. One of its fields may be wrong
    // if the other fields and the bytes after the record confirm it.
    std::optional<Record> expectedRecord(std::uint32_t at) const {
        if (!hasHead(at))
            return std::nullopt;
        const Head fields = head(at);
        if (!fields.sizeIsPossible || !continuesAt(at + fields.size))
            return fields.keyIsRight && fields.priorityIsPossible && fields.timeIsPossible
                       ? unfollowedRecord(at, fields)
                       : std::nullopt;
        // The priority is not judged: it is the low byte of any number, and no line shows it.
        if (!fields.keyIsRight)
            return fields.priorityIsPossible && fields.timeIsPossible
                       ? std::optional(record(at, fields.size, Flaw::key))
                       : std::nullopt;
        return record(at, fields.size, fields.timeIsPossible ? Flaw::none : Flaw::time);
    }

    // The record at `at` if only its length is wrong, or if its neighbour is destroyed.
    std::optional<Record> unfollowedRecord(std::uint32_t at, const Head& fields) const {
        const std::uint32_t next = nextRecord(at + minEntrySize);
        // In a filled area there has to be room for the neighbour.
        const std::uint32_t neighbour = isFilled_ ? minEntrySize : 0;
        if (fields.sizeIsPossible && at + fields.size + neighbour <= next &&
            (isFilled_ || !endsEarly(at, fields.size)))
            return record(at, fields.size, Flaw::none);
        if (isFilled_ && next - at <= maxEntrySize)
            return record(at, next - at, Flaw::length);
        return std::nullopt;
    }

    Record record(std::uint32_t at, std::uint32_t size, Flaw flaw) const {
        return {at, size, flaw, entryOfSize(&image_[at], size)};
    }

    const Image& image_;
    const std::uint32_t to_;
    const bool isFilled_;
};

} // namespace

Entry entryOfSize(const std::uint8_t* record, std::uint32_t size) {
    std::array<std::uint8_t, maxEntrySize> copy;
    std::copy_n(record, size, copy.begin());
    copy[lengthAt] = static_cast<std::uint8_t>(size >> 8);
    copy[lengthAt + 1] = static_cast<std::uint8_t>(size);
    Entry entry;
    decodeEntry(copy.data(), entry);
    return entry;
}

Scan scanRecords(const Image& image, std::uint32_t from, std::uint32_t to, AreaEnd end) {
    return Scanner(image, to, end).scan(from);
}

} // namespace qwk::decode
