#include "decode/entryText.h"

#include <cstdint>
#include <cstdio>

#include "logger/sequenceNumber.h"

namespace qwk::decode {

namespace {

std::string lineText(const NumberedEntry& numbered, TimeZone zone) {
    std::string line =
        formatLogLine(numbered.id, numbered.entry.time, numbered.entry.message, zone);
    if (numbered.certainty == Certainty::unknown)
        line.replace(1, sequenceDigits, sequenceDigits, '?');
    if (numbered.certainty == Certainty::about) {
        line[0] = '(';
        line[sequenceDigits + 1] = ')';
    }
    return line;
}

// The bytes of the UTF-8 character at `at`: 1 to 4, or 0 when there is none.
std::size_t characterLength(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) {
        return static_cast<std::uint8_t>(at + i < text.size() ? text[at + i] : '\0');
    };
    const std::uint8_t first = byte(0);
    if (first < 0x80)
        return 1;
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0U) != 0x80)
            return 0;
    const bool isOverlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    const bool isSurrogate = first == 0xED && byte(1) >= 0xA0;
    const bool isBeyondUnicode = first > 0xF4 || (first == 0xF4 && byte(1) >= 0x90);
    return isOverlong || isSurrogate || isBeyondUnicode ? 0 : length;
}

// The character of this length at `at` is a control character: those below the blank but newline
// and tab, delete, and the second set from U+0080 to U+009F.
bool isControl(const std::string& text, std::size_t at, std::size_t length) {
    const auto first = static_cast<std::uint8_t>(text[at]);
    if (length == 1)
        return (first < 0x20 && first != '\n' && first != '\t') || first == 0x7F;
    return length == 2 && first == 0xC2 && static_cast<std::uint8_t>(text[at + 1]) < 0xA0;
}

} // namespace

std::string entriesText(const std::vector<NumberedEntry>& entries, TimeZone zone) {
    std::string text;
    for (const NumberedEntry& entry : entries) {
        if (!text.empty() && text.back() != '\n')
            text += '\n';
        text += lineText(entry, zone);
    }
    if (!entries.empty())
        text += '\n';
    return text;
}

std::string sectionsText(const std::vector<Section>& sections, TimeZone zone) {
    std::string text;
    for (const Section& section : sections)
        text += "-- " + section.title + '\n' + entriesText(section.entries, zone);
    return text;
}

std::string harmless(const std::string& text) {
    std::string safe;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterLength(text, at);
        if (length > 0 && !isControl(text, at, length)) {
            safe.append(text, at, length);
            at += length;
            continue;
        }
        for (const std::size_t end = at + (length > 0 ? length : 1); at < end; ++at) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<std::uint8_t>(text[at]));
            safe += escaped;
        }
    }
    return safe;
}

} // namespace qwk::decode
