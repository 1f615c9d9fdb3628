#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// Characters of a sequence number in the log, without its brackets.
inline constexpr int sequenceDigits = 8;

/// "[%08x]" of `id`, as every log line begins.
std::string sequenceTag(std::uint32_t id);

/// Reads the eight characters at `digits` as one hexadecimal number as strtoul does (leading
/// blanks, a sign and "0x" count as it counts them). True, and `id` set, when all eight belong to
/// the number.
bool parseSequenceNumber(const char* digits, std::uint32_t& id);

} // namespace qwk
