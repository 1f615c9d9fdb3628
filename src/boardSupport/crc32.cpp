#include "boardSupport/crc32.h"

namespace boardSupport {

std::uint32_t crc32(const std::uint8_t* data, std::uint32_t length, std::uint32_t initial,
                    bool invert) {
    // Without a table, which would take longer to build than a block of 14 bytes takes to check.
    std::uint32_t crc = initial;
    for (std::uint32_t i = 0; i < length; ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            const bool odd = ((crc ^ (std::uint32_t{data[i]} >> bit)) & 1U) != 0;
            crc = odd ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
        }
    }
    return invert ? ~crc : crc;
}

} // namespace boardSupport
