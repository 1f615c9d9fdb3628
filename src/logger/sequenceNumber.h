#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// Characters of a sequence number in the log, without its brackets.
inline constexpr int sequenceDigits = 8;

/// "[%08x]" of `id`: the beginning of its log line.
std::string sequenceTag(std::uint32_t id);

/// Reads the eight characters at `digits` as one hexadecimal number with strtoul, which accepts
/// leading blanks, a sign and "0x". Returns true, and sets `id`, if all eight belong to the number.
bool parseSequenceNumber(const char* digits, std::uint32_t& id);

} // namespace qwk
