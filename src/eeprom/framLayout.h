#pragma once

#include <array>
#include <cstdint>
#include <string>

/// The bytes in the FRAM chip. All numbers are big-endian. Two copies of the header block stand at
/// the chip's start; entry records follow back to back, oldest first. Both kinds are KLV records: a
/// key of four characters, the length of the whole record (two bytes), and a value.
namespace qwk::framLayout {

inline constexpr std::uint32_t chipSize = 8192;

inline constexpr std::uint32_t keyAt = 0;
inline constexpr std::uint32_t keySize = 4;
inline constexpr std::uint32_t lengthAt = 4;
inline constexpr std::uint32_t klvHeadSize = 6;

/// Header block, key "hdr1".
inline constexpr std::uint32_t endAt = 6;     // 2 bytes: address behind the last record
inline constexpr std::uint32_t countAt = 8;   // 2 bytes: number of records
inline constexpr std::uint32_t nextIdAt = 10; // 4 bytes: sequence number of the next entry
inline constexpr std::uint32_t crcAt = 14;    // 4 bytes: CRC-32/ISO-HDLC of all before it
inline constexpr std::uint32_t headerSize = 18;

inline constexpr std::uint32_t entryAreaStart = 2 * headerSize;

/// Entry record, key "log1". The sequence number is not stored: it follows from the position.
inline constexpr std::uint32_t priorityAt = 6; // 1 byte
inline constexpr std::uint32_t timeAt = 7;     // 8 bytes: microseconds since the Unix epoch
inline constexpr std::uint32_t messageAt = 15; // to the record's end, no terminating NUL
inline constexpr std::uint32_t minEntrySize = messageAt;

/// A longer message is stored as its head, a filler and its tail, together of this length.
inline constexpr std::uint32_t maxMessage = 256;
inline constexpr std::uint32_t longMessageHead = 232;
inline constexpr char longMessageFiller[] = "........";
inline constexpr std::uint32_t longMessageTail = 16;
inline constexpr std::uint32_t maxEntrySize = messageAt + maxMessage;

static_assert(crcAt + 4 == headerSize && timeAt + 8 == messageAt);
static_assert(longMessageHead + sizeof longMessageFiller - 1 + longMessageTail == maxMessage);

/// What a header block says about the cache.
struct Header {
    std::uint32_t end;
    std::uint32_t count;
    std::uint32_t nextId;
};

struct Entry {
    std::int32_t priority;
    std::uint64_t time;
    std::string message;
};

/// Whether the record at `klv` has the header's, respectively the entry's, key.
bool hasHeaderKey(const std::uint8_t* klv);
bool hasEntryKey(const std::uint8_t* klv);

/// The length field of the record whose head is at `klv`.
std::uint32_t klvLength(const std::uint8_t* klv);

/// CRC of the header block at `block`, as it should be and as it stands there.
std::uint32_t computedCrc(const std::uint8_t* block);
std::uint32_t storedCrc(const std::uint8_t* block);

Header decodeHeader(const std::uint8_t* block);
std::array<std::uint8_t, headerSize> encodeHeader(const Header& header);

/// Reads the entry record at `record`, whose length field lies within the buffer and is at least
/// minEntrySize. The message ends at the record's end or at its first NUL byte.
void decodeEntry(const std::uint8_t* record, Entry& entry);

/// Writes the record into `record`, which has room for maxEntrySize bytes; returns its length.
std::uint32_t encodeEntry(std::uint8_t* record, std::int32_t priority, std::uint64_t time,
                          const std::string& message);

/// Length of the record that stores `message`.
std::uint32_t entrySize(const std::string& message);

} // namespace qwk::framLayout
