#pragma once

#include <cstdint>

namespace boardSupport {

/// Bitwise CRC-32 of `length` bytes with the reflected polynomial 0xEDB88320, continued from
/// `initial`; all bits are inverted at the end when `invert` is true. CRC-32/ISO-HDLC is initial
/// 0xFFFFFFFF, invert.
std::uint32_t crc32(const std::uint8_t* data, std::uint32_t length, std::uint32_t initial,
                    bool invert);

} // namespace boardSupport
