#include "decode/imageFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk::decode {

namespace {

using framLayout::chipSize;

// Several times the longest form of an image. A longer file is not read to its end.
constexpr std::size_t maxFileSize = 262144;

constexpr std::size_t dumpLineBytes = 16;
constexpr std::string_view blanks = " \t\r\n";

bool isTextCharacter(char character) {
    return (character >= ' ' && character <= '~') ||
           blanks.find(character) != std::string_view::npos;
}

bool isText(std::string_view content) {
    return std::all_of(content.begin(), content.end(), isTextCharacter);
}

std::string address(std::size_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04zx", value);
    return text;
}

int digitValue(char digit) {
    constexpr std::string_view digits = "0123456789abcdef0123456789ABCDEF";
    const std::size_t at = digits.find(digit);
    return at == std::string_view::npos ? -1 : static_cast<int>(at % 16);
}

// Two hexadecimal digits, and nothing else, as a byte.
bool parseByte(std::string_view text, std::uint8_t& byte) {
    if (text.size() != 2 || digitValue(text[0]) < 0 || digitValue(text[1]) < 0)
        return false;
    byte = static_cast<std::uint8_t>(digitValue(text[0]) * 16 + digitValue(text[1]));
    return true;
}

// Takes the characters up to the next one of `separators`, and that one, off the front of `text`.
std::string_view takeUpTo(std::string_view separators, std::string_view& text) {
    const std::size_t length = std::min(text.find_first_of(separators), text.size());
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return taken;
}

// "0010  68 64 72 ..." with 16 bytes; the characters after them are not looked at.
bool parseDumpLine(std::string_view line, std::size_t expectedAddress, std::uint8_t* bytes) {
    constexpr std::size_t bytesAt = 6;
    std::uint8_t high;
    std::uint8_t low;
    if (line.size() < bytesAt + 3 * dumpLineBytes - 1 || !parseByte(line.substr(0, 2), high) ||
        !parseByte(line.substr(2, 2), low) || high * 256U + low != expectedAddress)
        return false;
    for (std::size_t i = 0; i < dumpLineBytes; ++i)
        if (line[bytesAt + 3 * i - 1] != ' ' ||
            !parseByte(line.substr(bytesAt + 3 * i, 2), bytes[i]))
            return false;
    return true;
}

std::optional<Image> parseDump(std::string_view text, std::string& error) {
    Image image;
    std::size_t at = 0;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = takeUpTo("\n", text);
        if (line.find_first_not_of(blanks) == std::string_view::npos)
            continue;
        if (at == chipSize) {
            error = "Line " + std::to_string(number) + " follows a whole dump of the chip.";
            return std::nullopt;
        }
        if (!parseDumpLine(line, at, &image[at])) {
            error = "Line " + std::to_string(number) + " is not the dump of the 16 bytes at " +
                    address(at) + '.';
            return std::nullopt;
        }
        at += dumpLineBytes;
    }
    if (at < chipSize) {
        error = "The dump ends early: the line of address " + address(at) + " is missing.";
        return std::nullopt;
    }
    return image;
}

std::optional<Image> parseNumbers(std::string_view text, std::string& error) {
    Image image;
    std::size_t count = 0;
    while (!text.empty()) {
        const std::string_view number = takeUpTo(blanks, text);
        if (number.empty())
            continue;
        std::uint8_t byte;
        if (number.substr(0, 2) != "0x" || !parseByte(number.substr(2), byte)) {
            error = "Number " + std::to_string(count + 1) +
                    " is not a byte in the form that i2ctransfer prints, like 0x68.";
            return std::nullopt;
        }
        if (count < chipSize)
            image[count] = byte;
        ++count;
    }
    if (count != chipSize) {
        error = "The text has " + std::to_string(count) + " bytes of the chip's 8192.";
        return std::nullopt;
    }
    return image;
}

std::optional<Image> parseBytes(std::string_view content, std::string& error) {
    Image image;
    if (content.size() != image.size()) {
        error = "The file has " + std::to_string(content.size()) +
                " bytes, an image of the chip has 8192.";
        return std::nullopt;
    }
    std::copy(content.begin(), content.end(), image.begin());
    return image;
}

// Up to one byte more than an image may have; nothing when a read fails.
std::optional<std::string> readContent(int descriptor) {
    std::string content(maxFileSize + 1, '\0');
    std::size_t length = 0;
    while (length < content.size()) {
        const ssize_t got = readSome(descriptor, content.data() + length, content.size() - length);
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        length += static_cast<std::size_t>(got);
    }
    content.resize(length);
    return content;
}

} // namespace

std::optional<Image> parseImage(std::string_view content, std::string& error) {
    if (content.size() > maxFileSize) {
        error = "The file is too long for an image of the chip.";
        return std::nullopt;
    }
    if (content.empty()) {
        error = "The file is empty.";
        return std::nullopt;
    }
    // A text has more bytes than the chip, and the chip's may look like text: 0x55 after a memory
    // test.
    if (content.size() == chipSize || !isText(content))
        return parseBytes(content, error);
    const std::size_t start = std::min(content.find_first_not_of(blanks), content.size());
    const std::string_view text = content.substr(start);
    if (text.substr(0, 2) == "0x")
        return parseNumbers(text, error);
    if (text.substr(0, 4) == "0000")
        return parseDump(content, error);
    error = "The text is neither a dump of \"quillwick -p\" nor the output of i2ctransfer.";
    return std::nullopt;
}

std::optional<Image> readImageFile(const std::string& path, std::string& error) {
    FileDescriptor file;
    if (path != "-") {
        file = openForReading(path.c_str());
        if (!file.isOpen()) {
            error = "The file cannot be opened (" + errorText(errno) + ").";
            return std::nullopt;
        }
    }
    const auto content = readContent(file.isOpen() ? file.get() : STDIN_FILENO);
    if (!content) {
        error = "The file cannot be read (" + errorText(errno) + ").";
        return std::nullopt;
    }
    return parseImage(*content, error);
}

} // namespace qwk::decode
