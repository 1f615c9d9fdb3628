#include "eeprom/framLayout.h"

#include <cassert>
#include <cstring>

#include "boardSupport/crc32.h"

namespace qwk::framLayout {

namespace {

constexpr std::uint8_t headerKey[keySize] = {'h', 'd', 'r', '1'};
constexpr std::uint8_t entryKey[keySize] = {'l', 'o', 'g', '1'};

// Byte by byte, so that neither the machine's byte order nor its alignment matters. 1 to 8 bytes.
std::uint64_t readBigEndian(const std::uint8_t* bytes, unsigned count) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

void writeBigEndian(std::uint8_t* bytes, unsigned count, std::uint64_t value) {
    for (unsigned i = count; i-- > 0; value >>= 8)
        bytes[i] = static_cast<std::uint8_t>(value);
}

std::uint32_t read16(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(readBigEndian(bytes, 2));
}

std::uint32_t read32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(readBigEndian(bytes, 4));
}

void writeHead(std::uint8_t* klv, const std::uint8_t (&key)[keySize], std::uint32_t length) {
    std::memcpy(klv + keyAt, key, keySize);
    writeBigEndian(klv + lengthAt, 2, length);
}

} // namespace

bool hasHeaderKey(const std::uint8_t* klv) {
    return std::memcmp(klv + keyAt, headerKey, keySize) == 0;
}

bool hasEntryKey(const std::uint8_t* klv) {
    return std::memcmp(klv + keyAt, entryKey, keySize) == 0;
}

std::uint32_t klvLength(const std::uint8_t* klv) {
    return read16(klv + lengthAt);
}

std::uint32_t computedCrc(const std::uint8_t* block) {
    return boardSupport::crc32(block, crcAt, 0xFFFFFFFF, true);
}

std::uint32_t storedCrc(const std::uint8_t* block) {
    return read32(block + crcAt);
}

Header decodeHeader(const std::uint8_t* block) {
    return {read16(block + endAt), read16(block + countAt), read32(block + nextIdAt)};
}

std::array<std::uint8_t, headerSize> encodeHeader(const Header& header) {
    std::array<std::uint8_t, headerSize> block{};
    writeHead(block.data(), headerKey, headerSize);
    writeBigEndian(block.data() + endAt, 2, header.end);
    writeBigEndian(block.data() + countAt, 2, header.count);
    writeBigEndian(block.data() + nextIdAt, 4, header.nextId);
    writeBigEndian(block.data() + crcAt, 4, computedCrc(block.data()));
    return block;
}

void decodeEntry(const std::uint8_t* record, Entry& entry) {
    assert(klvLength(record) >= minEntrySize);
    entry.priority = record[priorityAt];
    entry.time = readBigEndian(record + timeAt, 8);
    // The journal's messages have no NUL. One from elsewhere must not get into the log's lines, for
    // there it ends a delivery.
    const auto* text = reinterpret_cast<const char*>(record + messageAt);
    entry.message.assign(text, strnlen(text, klvLength(record) - messageAt));
}

std::uint32_t encodeEntry(std::uint8_t* record, std::int32_t priority, std::uint64_t time,
                          const std::string& message) {
    const std::uint32_t length = entrySize(message);
    writeHead(record, entryKey, length);
    record[priorityAt] = static_cast<std::uint8_t>(priority);
    writeBigEndian(record + timeAt, 8, time);

    // Of a long message both ends are kept: the sender comes first, an error's text often last.
    std::uint8_t* text = record + messageAt;
    if (message.size() <= maxMessage) {
        std::memcpy(text, message.data(), message.size());
    } else {
        std::memcpy(text, message.data(), longMessageHead);
        text += longMessageHead;
        std::memcpy(text, longMessageFiller, sizeof longMessageFiller - 1);
        text += sizeof longMessageFiller - 1;
        std::memcpy(text, message.data() + message.size() - longMessageTail, longMessageTail);
    }
    return length;
}

std::uint32_t entrySize(const std::string& message) {
    return message.size() <= maxMessage ? messageAt + static_cast<std::uint32_t>(message.size())
                                        : maxEntrySize;
}

} // namespace qwk::framLayout
