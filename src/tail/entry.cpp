#include "tail/entry.h"

#include <algorithm>

#include "eeprom/framLayout.h"
#include "logger/sequenceNumber.h"

namespace qwk::tail {

namespace {

// d is a decimal digit, x a hexadecimal one as the logger writes it.
constexpr char headShape[] = "[xxxxxxxx] dddd-dd-dd dd:dd:dd.ddd ";
static_assert(sizeof headShape - 1 == headLength);
constexpr std::size_t tagLength = sequenceDigits + 2;
constexpr std::size_t secondsAt = headLength - 7;

bool hasShape(const char* text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        const bool digit = c >= '0' && c <= '9';
        const char wanted = headShape[i];
        if (!(wanted == 'd'   ? digit
              : wanted == 'x' ? digit || (c >= 'a' && c <= 'f')
                              : c == wanted))
            return false;
    }
    return true;
}

} // namespace

bool beginsEntry(const char* line, std::size_t length, std::uint32_t& number) {
    return length >= headLength && hasShape(line, headLength) &&
           parseSequenceNumber(line + 1, number);
}

bool isTornHead(const char* line, std::size_t length, std::uint32_t number) {
    return length > 0 && length < headLength && hasShape(line, length) &&
           sequenceTag(number + 1)
                   .compare(0, std::min(length, tagLength), line, std::min(length, tagLength)) == 0;
}

std::uint64_t fingerprint(const Entry& entry) {
    // Both forms of a message begin with the same bytes. Newlines at its end look like the one
    // after it. Seconds and milliseconds are the same in every zone.
    std::size_t end = std::min(entry.text.size(), headLength + framLayout::longMessageHead);
    while (end > headLength && entry.text[end - 1] == '\n')
        --end;
    std::uint64_t hash = 0xcbf29ce484222325; // FNV-1a
    for (std::size_t i = secondsAt; i < end; ++i)
        hash = (hash ^ static_cast<unsigned char>(entry.text[i])) * 0x100000001b3;
    return hash;
}

} // namespace qwk::tail
