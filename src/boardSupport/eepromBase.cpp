#include "boardSupport/eepromBase.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <ctime>
#include <linux/i2c-dev.h>
#include <new>
#include <sys/ioctl.h>
#include <unistd.h>

#include "boardSupport/crc32.h"
#include "support/diagnostics.h"

namespace boardSupport {

namespace {

constexpr std::uint32_t addressBytes = 2;
constexpr std::uint32_t maxTransfer = 4096; // bytes, a write's address included
constexpr std::uint32_t maxChunk = maxTransfer - addressBytes;
constexpr std::size_t defaultDumpLength = 1024;
constexpr std::size_t dumpLineBytes = 16;
constexpr std::size_t characterColumn = 3 * dumpLineBytes + 1;

// Memory addresses go over the wire high byte first.
void putAddress(std::uint8_t* bytes, std::uint32_t address) {
    bytes[0] = static_cast<std::uint8_t>(address >> 8);
    bytes[1] = static_cast<std::uint8_t>(address);
}

bool isPrintable(std::uint8_t byte) {
    return byte >= 0x20 && byte <= 0x7E;
}

using DumpLine = std::array<char, characterColumn + dumpLineBytes + 1>;

// The hexadecimal column, two blanks and the character column of up to 16 bytes. A short line is
// padded, so that its characters stay in their column. Allocates nothing, so that a dump that has
// begun never stops with text in the stream's buffer.
DumpLine dumpLine(const std::uint8_t* bytes, std::size_t count) {
    static constexpr char digits[] = "0123456789abcdef";
    assert(count <= dumpLineBytes);
    DumpLine line;
    line.fill(' ');
    for (std::size_t i = 0; i < count; ++i) {
        line[3 * i] = digits[bytes[i] >> 4];
        line[3 * i + 1] = digits[bytes[i] & 0x0F];
        line[characterColumn + i] = isPrintable(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    }
    line[characterColumn + count] = '\0';
    return line;
}

// The time that an EEPROM needs to store a page.
void waitForPageWrite() {
    const timespec pageWriteTime{0, 10'000'000};
    nanosleep(&pageWriteTime, nullptr);
}

} // namespace

EepromBase::EepromBase(const std::string& device, int slaveAddress) : I2C(device) {
    if (fd < 0 || ioctl(fd, I2C_SLAVE, static_cast<long>(slaveAddress)) < 0)
        qwk::report(LOG_ERR, "Cannot access address %d at %s", slaveAddress, device.c_str());
}

int EepromBase::read(std::uint16_t address, void* buffer, std::uint16_t length) {
    return readBytes(address, static_cast<std::uint8_t*>(buffer), length) == 0 ? int{length} : -1;
}

int EepromBase::readBytes(std::uint16_t address, std::uint8_t* buffer, std::size_t length) {
    std::uint8_t start[addressBytes];
    putAddress(start, offset + address);
    if (::write(fd, start, sizeof start) != static_cast<ssize_t>(sizeof start))
        return -1;
    while (length > 0) {
        const std::size_t piece = std::min<std::size_t>(length, maxTransfer);
        if (::read(fd, buffer, piece) != static_cast<ssize_t>(piece))
            return -1;
        buffer += piece;
        length -= piece;
    }
    return 0;
}

int EepromBase::write(std::uint16_t address, const void* data, std::uint16_t length) {
    if (std::uint32_t{address} + length > static_cast<std::uint32_t>(size))
        return -1;
    const std::uint32_t capacity = pageSize == 0 ? maxChunk : static_cast<std::uint32_t>(pageSize);
    const std::unique_ptr<std::uint8_t[]> staging(
        new (std::nothrow) std::uint8_t[std::min<std::uint32_t>(capacity, length) + addressBytes]);
    if (!staging)
        return -1;

    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const std::uint32_t start = (offset + address) & 0xFFFF;
    for (std::uint32_t done = 0; done < length;) {
        const std::uint32_t current = start + done;
        const std::uint32_t chunk = std::min(length - done, capacity - current % capacity);
        putAddress(staging.get(), current);
        std::memcpy(staging.get() + addressBytes, bytes + done, chunk);
        const std::size_t transfer = std::size_t{chunk} + addressBytes;
        const ssize_t written = ::write(fd, staging.get(), transfer);
        if (pageSize != 0)
            waitForPageWrite();
        if (written != static_cast<ssize_t>(transfer)) {
            qwk::report(LOG_ERR, "Writing of %d bytes at address %d failed.", int{length},
                        static_cast<int>(start));
            return -1;
        }
        done += chunk;
    }
    return length;
}

std::uint32_t EepromBase::crc32(const std::uint8_t* data, std::uint32_t length,
                                std::uint32_t initial, bool invert) {
    return boardSupport::crc32(data, length, initial, invert);
}

int EepromBase::hexDump(std::FILE* out) {
    Image image;
    if (readImage(image) != 0)
        return -1;
    printImage(image, out);
    return 0;
}

std::size_t EepromBase::imageLength() const {
    return size == 0 ? defaultDumpLength : static_cast<std::size_t>(size);
}

int EepromBase::readImage(Image& image) {
    image.reset(new (std::nothrow) std::uint8_t[imageLength()]);
    if (!image) {
        qwk::report(LOG_ERR, "Out of memory.");
        return -1;
    }
    if (readBytes(0, image.get(), imageLength()) != 0)
        image.reset();
    return 0;
}

void EepromBase::printImage(const Image& image, std::FILE* out) const {
    if (!image)
        return;
    const std::size_t length = imageLength();
    for (std::size_t at = 0; at < length; at += dumpLineBytes) {
        const std::size_t count = std::min(length - at, dumpLineBytes);
        std::fprintf(out != nullptr ? out : stdout, "%04zx  %s\n", at,
                     dumpLine(image.get() + at, count).data());
    }
    if (out != nullptr)
        std::fflush(out);
}

} // namespace boardSupport
