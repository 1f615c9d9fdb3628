#include "decode/numbering.h"

namespace qwk::decode {

std::vector<NumberedEntry> numberCovered(const Scan& scan, const framLayout::Header& header,
                                         Certainty certainty) {
    const auto found = static_cast<std::uint32_t>(scan.records.size());
    const auto gaps = static_cast<std::uint32_t>(scan.gaps.size());
    const Certainty betweenGaps =
        found + gaps == header.count ? Certainty::about : Certainty::unknown;

    std::vector<NumberedEntry> entries;
    std::uint32_t gap = 0; // gaps passed
    for (const Record& record : scan.records) {
        while (gap < gaps && scan.gaps[gap].from < record.address)
            ++gap;
        const auto index = static_cast<std::uint32_t>(entries.size());
        const std::uint32_t fromFirst = header.nextId - header.count + index + gap;
        const std::uint32_t fromLast = header.nextId - found + index;
        if (gap == 0)
            entries.push_back({record.address, certainty, fromFirst, record.entry});
        else if (gap == gaps)
            entries.push_back({record.address, certainty, fromLast, record.entry});
        else
            entries.push_back({record.address, betweenGaps,
                               betweenGaps == Certainty::about ? fromFirst : 0, record.entry});
    }
    return entries;
}

std::vector<NumberedEntry> numberBackwards(const std::vector<Record>& records,
                                           std::uint32_t lastId) {
    std::vector<NumberedEntry> entries = withoutNumbers(records);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        entry->certainty = Certainty::about;
        entry->id = lastId--;
    }
    return entries;
}

std::vector<NumberedEntry> withoutNumbers(const std::vector<Record>& records) {
    std::vector<NumberedEntry> entries;
    entries.reserve(records.size());
    for (const Record& record : records)
        entries.push_back({record.address, Certainty::unknown, 0, record.entry});
    return entries;
}

} // namespace qwk::decode
