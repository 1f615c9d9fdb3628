#pragma once

#include <cstdint>
#include <vector>

#include "decode/imageFile.h"
#include "eeprom/framLayout.h"

namespace qwk::decode {

/// The field of a record that is wrong although the record was recognised.
enum class Flaw { none, key, length, time };

struct Record {
    std::uint32_t address;
    std::uint32_t size; // bytes, from one record to the next where the length field is wrong
    Flaw flaw;
    framLayout::Entry entry;
};

/// Bytes in which no record was recognised: those from `from` up to, not including, `to`.
struct Gap {
    std::uint32_t from;
    std::uint32_t to;
};

/// The records and gaps of an area, in the order of addresses.
struct Scan {
    std::vector<Record> records;
    std::vector<Gap> gaps;
};

/// The entry in the `size` bytes at `record`, minEntrySize to maxEntrySize, whatever its length
/// field says.
framLayout::Entry entryOfSize(const std::uint8_t* record, std::uint32_t size);

/// How an area may end.
enum class AreaEnd {
    lastRecord, // the last record ends exactly there, and records fill the area without a gap
    unknown     // records may end before it, and there may be other bytes between them
};

/// Looks for the records in `image` from address `from`, where the first one is expected, up to
/// `to`, at most chipSize. After a gap it goes on at the next address whose key, length, priority
/// and time are those of a record.
///
/// It mistakes no message for a record: a time begins with a zero byte, which ends a message.
Scan scanRecords(const Image& image, std::uint32_t from, std::uint32_t to, AreaEnd end);

} // namespace qwk::decode
