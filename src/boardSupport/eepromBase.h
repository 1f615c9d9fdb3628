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
/// condition. A read relies on the chip's address counter between its transfers, so operations of
/// several objects on one bus must not overlap.
class EepromBase : public I2C {
public:
    /// Opens `device` and selects the chip at the 7-bit `slaveAddress`. Reports failures; after one
    /// the object is inert: every transfer fails. `fd` is negative if the device did not open.
    EepromBase(const std::string& device, int slaveAddress);
    ~EepromBase() override = default;

    /// Reads `length` bytes from memory address `address` into `buffer`, regardless of `size`.
    /// Returns `length`, or -1 when a transfer fails or is short; `buffer` may then be half filled.
    int read(std::uint16_t address, void* buffer, std::uint16_t length);

    /// Writes `length` bytes to memory address `address`. Returns `length`, or -1: when the range
    /// leaves the chip, nothing is sent; when a transfer fails, the bytes before it stay written.
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
    /// Reads the whole chip: 0 with `image` set, or null if the chip cannot be read; -1 when memory
    /// is short (reported).
    int readImage(Image& image);
    /// Prints the image that readImage read; nothing if it is null.
    void printImage(const Image& image, std::FILE* out) const;

    /// Added to every memory address, modulo 65536.
    std::uint32_t offset = 0;
    /// Bytes in the chip. A write beyond them is refused.
    std::int32_t size = 0;
    /// Bytes in a write page; 0 for FRAM, which has none and needs no pause after a write.
    std::int32_t pageSize = 0;

private:
    /// Reads from `address` on with one address transfer and data transfers of at most 4096 bytes.
    /// Beyond 65535 the chip's address counter decides. Returns 0, or -1 like read().
    int readBytes(std::uint16_t address, std::uint8_t* buffer, std::size_t length);
    std::size_t imageLength() const;
};

} // namespace boardSupport
