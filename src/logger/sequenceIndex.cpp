#include "logger/sequenceIndex.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <unistd.h>

#include "logger/sequenceNumber.h"
#include "support/fileDescriptor.h"

namespace qwk::sequenceIndex {

namespace {

constexpr std::size_t blockSize = 128;

// A line of a log file that begins with a sequence number, and the offset at which it starts.
struct NumberedLine {
    std::uint32_t id;
    std::uint32_t offset;
};

// One block of a file, and where it came from.
struct Block {
    off_t start = 0;
    std::size_t length = 0;
    char bytes[blockSize];

    // Reads the block at the file's position, which is `position`. False at the end or on failure.
    bool readFrom(int fd, off_t position) {
        const ssize_t got = readSome(fd, bytes, blockSize);
        start = position;
        length = got > 0 ? static_cast<std::size_t>(got) : 0;
        return length > 0;
    }

    std::optional<std::size_t> firstNewline() const {
        const void* found = std::memchr(bytes, '\n', length);
        if (found == nullptr)
            return std::nullopt;
        return static_cast<std::size_t>(static_cast<const char*>(found) - bytes);
    }
};

bool seekTo(int fd, off_t offset) {
    return ::lseek(fd, offset, SEEK_SET) == offset;
}

// Offsets are 32-bit; a place beyond them counts as not found.
bool fitsOffset(off_t offset) {
    return offset <= std::numeric_limits<std::uint32_t>::max();
}

// The number of the line that starts after the newline at `newline` in the block. If the block ends
// within the eight digits, reads them separately, which moves the file's position.
bool numberAfter(int fd, const Block& block, std::size_t newline, std::uint32_t& id) {
    const std::size_t firstDigit = newline + 2;
    if (firstDigit + sequenceDigits <= block.length)
        return parseSequenceNumber(block.bytes + firstDigit, id);
    char digits[sequenceDigits];
    return seekTo(fd, block.start + static_cast<off_t>(firstDigit)) &&
           readSome(fd, digits, sequenceDigits) == sequenceDigits &&
           parseSequenceNumber(digits, id);
}

int offsetIfSame(const NumberedLine& line, std::uint32_t id, std::uint32_t& offset) {
    if (line.id != id)
        return -1;
    offset = line.offset;
    return 0;
}

// Where the line numbered `id` would be between two known lines if all lines were equally long.
// Unsigned throughout: if the numbers of a file do not grow, the place is wrong but defined.
std::uint32_t interpolate(std::uint32_t id, const NumberedLine& low, const NumberedLine& high) {
    const std::int64_t distance = std::int64_t{high.offset} - std::int64_t{low.offset};
    const std::uint64_t product = std::uint64_t{id - low.id} * static_cast<std::uint64_t>(distance);
    return low.offset + static_cast<std::uint32_t>(product / (high.id - low.id));
}

} // namespace

int findNextLine(const std::string& path, std::uint32_t& offset) {
    const FileDescriptor file = openForReading(path.c_str());
    if (!file.isOpen())
        return -1;
    off_t position = offset;
    if (offset != 0 && !seekTo(file.get(), position))
        return -1;
    Block block;
    while (block.readFrom(file.get(), position)) {
        if (const auto newline = block.firstNewline()) {
            const off_t next = position + static_cast<off_t>(*newline) + 1;
            if (!fitsOffset(next))
                return -1;
            offset = static_cast<std::uint32_t>(next);
            return 0;
        }
        position += static_cast<off_t>(block.length);
    }
    return -1;
}

int findNextLine(const char* data, int size, std::uint32_t& offset) {
    if (std::int64_t{offset} >= size)
        return -1;
    const void* newline =
        std::memchr(data + offset, '\n', static_cast<std::uint32_t>(size) - offset);
    if (newline == nullptr)
        return -1;
    offset = static_cast<std::uint32_t>(static_cast<const char*>(newline) - data) + 1;
    return 0;
}

int readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id) {
    off_t position = offset;
    if (!seekTo(fd, position))
        return -1;
    Block block;
    while (block.readFrom(fd, position)) {
        // The first line of a file follows no newline.
        if (position == 0 && block.length > sequenceDigits &&
            parseSequenceNumber(block.bytes + 1, id)) {
            offset = 0;
            return 0;
        }
        const auto newline = block.firstNewline();
        if (!newline) {
            position += static_cast<off_t>(block.length);
            continue;
        }
        std::uint32_t number;
        if (numberAfter(fd, block, *newline, number)) {
            const off_t start = position + static_cast<off_t>(*newline) + 1;
            if (!fitsOffset(start))
                return -1;
            offset = static_cast<std::uint32_t>(start);
            id = number;
            return 0;
        }
        position = ::lseek(fd, 0, SEEK_CUR);
    }
    return -1;
}

int readLastId(int fd, std::uint32_t& offset, std::uint32_t& id) {
    off_t start = ::lseek(fd, 0, SEEK_END);
    Block block;
    while (start >= 0) {
        start = std::max<off_t>(start - static_cast<off_t>(blockSize), 0);
        if (!seekTo(fd, start) || !block.readFrom(fd, start))
            return -1;
        for (std::size_t i = block.length; i-- > 0;) {
            const off_t newline = start + static_cast<off_t>(i);
            if (block.bytes[i] != '\n' || !fitsOffset(newline + 1))
                continue;
            // No line after a later newline is numbered, so readIdAt would look only at this one.
            // At the file's start it would also take the newline for a line's first character.
            std::uint32_t lineStart = 0;
            if (newline == 0 ? readIdAt(fd, lineStart, id) == 0 : numberAfter(fd, block, i, id)) {
                offset = newline == 0 ? lineStart : static_cast<std::uint32_t>(newline + 1);
                return 0;
            }
        }
        if (start == 0)
            return -1;
    }
    return -1;
}

namespace {

// The start of a line below `id` shortly before `place`, where line `id` was expected; if there is
// none, the start of `low`. In a file whose lines differ in length, the interpolation ends near the
// line while its lower bound may still be the file's first line.
std::uint32_t lineBefore(int fd, std::uint32_t id, std::uint32_t place, const NumberedLine& low) {
    std::uint64_t step = blockSize;
    while (low.offset + step < place) {
        NumberedLine line{0, place - static_cast<std::uint32_t>(step)};
        if (readIdAt(fd, line.offset, line.id) != 0)
            break;
        if (line.id > low.id && line.id < id)
            return line.offset;
        step *= 2;
    }
    return low.offset;
}

// Visits the numbered lines from `from` on until `id`, a number above `highest` or the end.
int walkToId(int fd, std::uint32_t id, std::uint32_t from, std::uint32_t current,
             std::uint32_t highest, std::uint32_t& offset) {
    while (current <= highest && readIdAt(fd, from, current) == 0) {
        if (current == id) {
            offset = from;
            return 0;
        }
        if (++from == 0) // beyond the largest offset
            break;
    }
    return -1;
}

// findId where low.id < id < high.id: by interpolation, then by a walk over the remaining lines.
int findIdBetween(int fd, std::uint32_t id, NumberedLine low, NumberedLine high,
                  std::uint32_t& offset) {
    for (;;) {
        const std::uint32_t place = interpolate(id, low, high);
        NumberedLine probe{0, place};
        if (readIdAt(fd, probe.offset, probe.id) != 0)
            return -1;
        if (probe.id == id)
            return offsetIfSame(probe, id, offset);
        // Every probe strictly between the bounds becomes one of them.
        if (probe.id <= low.id || probe.id >= high.id) {
            const std::uint32_t near = lineBefore(fd, id, place, low);
            if (walkToId(fd, id, near + 1, probe.id, high.id, offset) == 0)
                return 0;
            // Between lines without number, a walk from another start meets other lines.
            return near == low.offset ? -1
                                      : walkToId(fd, id, low.offset + 1, probe.id, high.id, offset);
        }
        (id < probe.id ? high : low) = probe;
    }
}

} // namespace

int findId(const std::string& path, std::uint32_t id, std::uint32_t& offset) {
    const FileDescriptor file = openForReading(path.c_str());
    if (!file.isOpen())
        return -2;
    const int fd = file.get();

    NumberedLine low{0, 0};
    if (readIdAt(fd, low.offset, low.id) != 0)
        return -1;
    if (id <= low.id)
        return offsetIfSame(low, id, offset);
    NumberedLine high{0, 0};
    if (readLastId(fd, high.offset, high.id) != 0)
        return -1;
    if (id >= high.id)
        return offsetIfSame(high, id, offset);
    return findIdBetween(fd, id, low, high, offset);
}

int findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset) {
    const std::string tag = sequenceTag(id);
    const void* found =
        ::memmem(data, static_cast<std::size_t>(std::max(size, 0)), tag.data(), tag.size());
    if (found == nullptr)
        return -1;
    offset = static_cast<std::uint32_t>(static_cast<const char*>(found) - data);
    return 0;
}

} // namespace qwk::sequenceIndex
