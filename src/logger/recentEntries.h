#pragma once

#include <cstddef>
#include <string>

namespace qwk {

/// Limit of the recent-entry buffer, in bytes. The entries of a full chip need a fiftieth of it; it
/// is reached only while the chip does not answer and nothing empties the buffer.
inline constexpr std::size_t maxRecentEntries = std::size_t{4} << 20;

/// Drops whole lines from the front of `lines` if it is longer than that. Drops some more than
/// necessary, so that the rest is not moved for every line. False when it dropped nothing.
bool dropOldestLines(std::string& lines);

} // namespace qwk
