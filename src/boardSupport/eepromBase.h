#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "boardSupport/i2c.h"

namespace boardSupport {

/// Byte access to a serial memory chip (EEPROM or FRAM) with 16-bit memory addresses on an I2C bus.
/// Every transfer is one read() or write() of at most 4096 bytes with its own start and stop
/// condition. A read relies on the chip's address counter between its transfers, so a user of
/// several objects on one bus keeps their operations apart.
class EepromBase : public I2C {
public:
    /// Opens `device` and selects the chip at the 7-bit `slaveAddress`; failures are reported. The
    /// object is complete in any case: one whose `fd` is negative fails every transfer, as does one
    /// whose slave could not be selected.
    EepromBase(const std::string& device, int slaveAddress);
    ~EepromBase() override = default;

    /// Reads `length` bytes from memory address `address` into `buffer`, whatever `size` says.
    /// Returns `length`, or -1 when a transfer fails or is short; `buffer` may then be half filled.
    int read(std::uint16_t address, void* buffer, std::uint16_t length);

    /// Writes `length` bytes to memory address `address`. Returns `length`, or -1: nothing is sent
    /// when the range leaves the chip, and the bytes sent stay written when a transfer fails.
    int write(std::uint16_t address, const void* data, std::uint16_t length);

    /// The CRC-32 of boardSupport/crc32.h.
    static std::uint32_t crc32(const std::uint8_t* data, std::uint32_t length,
                               std::uint32_t initial, bool invert);

    /// Prints the whole chip, 16 bytes a line, to `out` and flushes it; to standard output when
    /// `out` is null. Returns 0, also when the chip cannot be read (nothing is printed then); -1
    /// when memory is short.
    int hexDump(std::FILE* out);

protected:
    using Image = std::unique_ptr<std::uint8_t[]>;

    /// The two steps of hexDump, for a derived class that must not print under its lock.
    /// Reads the whole chip: 0 with `image` set, or null in it when the chip cannot be read; -1
    /// when memory is short (reported).
    int readImage(Image& image);
    /// Prints the image that readImage read; nothing when that is null.
    void printImage(const Image& image, std::FILE* out) const;

    /// Added to every memory address, modulo 65536.
    std::uint32_t offset = 0;
    /// Bytes in the chip. A write beyond them is refused.
    std::int32_t size = 0;
    /// Bytes in a write page; 0 for FRAM, which has none and needs no pause after a write.
    std::int32_t pageSize = 0;

private:
    /// Reads from `address` on in one address transfer and data transfers of at most 4096 bytes,
    /// also beyond 65535, where the chip's address counter decides. 0, or -1 as read().
    int readBytes(std::uint16_t address, std::uint8_t* buffer, std::size_t length);
    std::size_t imageLength() const;
};

} // namespace boardSupport
