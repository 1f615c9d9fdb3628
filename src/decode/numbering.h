#pragma once

#include <cstdint>
#include <vector>

#include "decode/recordScan.h"
#include "eeprom/framLayout.h"

namespace qwk::decode {

/// How reliable the number of an entry is.
enum class Certainty { unknown, about, certain };

struct NumberedEntry {
    std::uint32_t address;
    Certainty certainty;
    std::uint32_t id; // 0 when unknown
    framLayout::Entry entry;
};

/// The records that `header` covers. Those before the first gap are counted from the first number,
/// those after the last gap from the last one; these are as certain as `certainty`, which the
/// header is. Between two gaps a number is likely when each gap may take the place of one record,
/// else unknown.
std::vector<NumberedEntry> numberCovered(const Scan& scan, const framLayout::Header& header,
                                         Certainty certainty);

/// The records with likely numbers, the last of which is `lastId`.
std::vector<NumberedEntry> numberBackwards(const std::vector<Record>& records,
                                           std::uint32_t lastId);

std::vector<NumberedEntry> withoutNumbers(const std::vector<Record>& records);

} // namespace qwk::decode
