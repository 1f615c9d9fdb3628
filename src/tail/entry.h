#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// The reader that prints every entry of the log once.
namespace qwk::tail {

/// One entry as it is printed: its log line, the further lines of its message included, without
/// the newlines at its end.
struct Entry {
    std::uint32_t number = 0;
    std::string text;
};

/// Characters before the message: "[%08x] YYYY-MM-DD hh:mm:ss.mmm ".
inline constexpr std::size_t headLength = 35;

/// Whether the `length` bytes at `line` begin as an entry does. Sets `number` when they do.
bool beginsEntry(const char* line, std::size_t length, std::uint32_t& number);

/// Whether `line`, the last one of entry `number`, is the next entry's head, torn by a power cut.
bool isTornHead(const char* line, std::size_t length, std::uint32_t number);

/// Tells an entry that comes again from another one with the same number. It is the same for the
/// whole message and its shortened form, and in every time zone.
std::uint64_t fingerprint(const Entry& entry);

/// How far `number` is after `other`, negative when it is before; numbers go from 2^32 - 1 to 0.
inline std::int32_t distance(std::uint32_t number, std::uint32_t other) {
    return static_cast<std::int32_t>(number - other);
}

} // namespace qwk::tail
