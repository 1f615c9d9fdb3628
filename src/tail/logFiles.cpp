#include "tail/logFiles.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "logger/logFileName.h"
#include "logger/sequenceIndex.h"
#include "tail/entrySplitter.h"

namespace qwk::tail {

namespace {

constexpr std::size_t blockSize = 65536;
// Above the longest entry of a log file and the line after it.
constexpr std::uint32_t entryBlock = 1024;
// In the middle of a roll one name is missing.
constexpr int missingNamesAtEnd = 2;

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "Cannot read \"" + path + '"');
}

// The index opens a file by its path; this one follows it through its renames.
std::string stablePath(const FileDescriptor& file) {
    return "/proc/self/fd/" + std::to_string(file.get());
}

ssize_t readAt(const FileDescriptor& file, char* block, std::size_t length, off_t offset) {
    const ssize_t got = retryOnInterrupt([&] { return pread(file.get(), block, length, offset); });
    if (got < 0)
        fail(stablePath(file));
    return got;
}

std::vector<Entry> entriesAt(const FileDescriptor& file, std::uint32_t offset,
                             std::uint32_t length) {
    char block[entryBlock];
    return splitEntries(EntrySplitter::Source::file, block,
                        static_cast<std::size_t>(readAt(file, block, length, offset)));
}

} // namespace

FileState logFileState() {
    struct stat status;
    return stat(logFilePath, &status) == 0 ? FileState{status.st_ino, status.st_size} : FileState{};
}

bool LogFiles::placeAtKnown(History& history) {
    if (!history.isEmpty())
        while (openOlder())
            if (placeByNumber(files_.back(), history))
                return true;
    // The index misses places in a file whose numbers went back.
    while (openOlder()) {
    }
    if (!history.isEmpty())
        for (auto file = files_.begin(); file != files_.end(); ++file)
            if (placeByReading(*file, history)) {
                files_.erase(file + 1, files_.end());
                return true;
            }
    return false;
}

void LogFiles::placeAtNumber(std::uint32_t number) {
    while (openOlder()) {
        std::uint32_t offset = 0;
        std::uint32_t first;
        if (sequenceIndex::readIdAt(files_.back().descriptor.get(), offset, first) == 0 &&
            distance(number, first) >= 0)
            return;
    }
}

void LogFiles::read(const std::function<bool(Entry&)>& visit) {
    for (auto file = files_.rbegin(); file != files_.rend(); ++file)
        if (!readFile(*file, visit))
            return;
}

bool LogFiles::isAtRest() const {
    const FileState now = logFileState();
    if (files_.empty())
        return now == FileState{};
    // A roll that was cut off leaves copies and no log file.
    const File& newest = files_.front();
    struct stat status;
    return now == FileState{newest.inode, newest.end} ||
           (now == FileState{} && fstat(newest.descriptor.get(), &status) == 0 &&
            status.st_size == newest.end);
}

// False when there is none.
bool LogFiles::openOlder() {
    for (int missing = 0; missing < missingNamesAtEnd; ++nextIndex_) {
        const std::string path = logFileName(nextIndex_);
        FileDescriptor descriptor = openForReading(path.c_str());
        struct stat status;
        if (!descriptor.isOpen() && errno == ENOENT) {
            ++missing;
            continue;
        }
        if (!descriptor.isOpen() || fstat(descriptor.get(), &status) != 0)
            fail(path);
        // After a roll the name is that of a file which is open already.
        if (std::any_of(files_.begin(), files_.end(),
                        [&](const File& file) { return file.inode == status.st_ino; }))
            continue;
        files_.push_back({std::move(descriptor), status.st_ino});
        ++nextIndex_;
        return true;
    }
    return false;
}

bool LogFiles::placeByNumber(File& file, History& history) {
    const std::string path = stablePath(file.descriptor);
    const auto place = [&](const Mark& mark) {
        std::uint32_t offset;
        if (sequenceIndex::findId(path, mark.number, offset) != 0)
            return false;
        const auto found = entriesAt(file.descriptor, offset, entryBlock);
        if (found.empty() || !(markOf(found.front()) == mark))
            return false;
        // A message of a later entry may quote it: then another number is before it.
        const std::uint32_t before = std::min(offset, entryBlock);
        const auto others = entriesAt(file.descriptor, offset - before, before);
        if (before > 0 && (others.empty() || others.back().number + 1 != mark.number))
            return false;
        file.begin = offset;
        history.setAnchor(mark);
        return true;
    };
    const auto& marks = history.marks();
    return std::any_of(marks.rbegin(), marks.rend(), place) ||
           (history.anchor() && place(Mark(*history.anchor())));
}

bool LogFiles::placeByReading(File& file, History& history) {
    std::optional<Mark> known;
    std::size_t count = 0;
    readFile(file, [&](const Entry& entry) {
        if (history.knows(entry)) {
            known = markOf(entry);
            file.skipped = count;
        }
        ++count;
        return true;
    });
    if (known)
        history.setAnchor(*known);
    return known.has_value();
}

bool LogFiles::readFile(File& file, const std::function<bool(Entry&)>& visit) {
    const auto block = std::make_unique<char[]>(blockSize);
    EntrySplitter splitter(EntrySplitter::Source::file);
    Entry entry;
    std::size_t skipped = std::exchange(file.skipped, 0);
    file.end = file.begin;
    for (bool complete = false; !complete;) {
        const ssize_t got = readAt(file.descriptor, block.get(), blockSize, file.end);
        complete = got == 0;
        file.end += got;
        splitter.add(block.get(), static_cast<std::size_t>(got));
        while (splitter.next(entry, complete))
            if (skipped > 0)
                --skipped;
            else if (!visit(entry))
                return false;
    }
    return true;
}

} // namespace qwk::tail
