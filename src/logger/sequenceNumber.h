#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// Characters of a sequence number in the log, without its brackets.
inline constexpr int sequenceDigits = 8;

/// A line of a log file that begins with a sequence number, and the offset at which it starts.
struct NumberedLine {
    std::uint32_t id;
    std::uint32_t offset;
};

/// "[%08x]" of `id`, as every log line begins.
std::string sequenceTag(std::uint32_t id);

/// Reads the eight characters at `digits` as one hexadecimal number in the way of strtoul (leading
/// blanks, a sign and "0x" count as it counts them). True, and `id` set, when all eight belong to
/// the number.
bool parseSequenceNumber(const char* digits, std::uint32_t& id);

} // namespace qwk
