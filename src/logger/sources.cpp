// The part of Logger that chooses the sources of a delivery: by size for the first delivery, by
// sequence number for every later one. It sends nothing.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <sys/stat.h>

#include "logger/logFileName.h"
#include "logger/logger.h"
#include "logger/sequenceIndex.h"
#include "support/diagnostics.h"

namespace qwk {

namespace {

std::optional<std::int64_t> fileSize(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return status.st_size;
}

// Offsets and sizes are stored modulo 2^32; these convert to and from that form.
std::int32_t narrowed(std::int64_t offset) {
    return static_cast<std::int32_t>(offset);
}
std::int64_t widened(std::int32_t offset) {
    return static_cast<std::uint32_t>(offset);
}

void reportFiles(const std::vector<LogFile>& files) {
    for (const LogFile& file : files)
        report(LOG_DEBUG, "-- %s, off= %d", file.name.empty() ? "cache" : file.name.c_str(),
               file.off);
}

// If the client has all of the oldest source, moves the start to the next newer one, after the
// bytes that the client already has of it. False when the client has more than both contain, or a
// size is unknown.
bool carryOver(std::vector<LogFile>& files) {
    const auto oldestSize = fileSize(files.back().name);
    if (!oldestSize)
        return false;
    if (widened(files.back().off) < *oldestSize)
        return true;
    const std::int64_t remainder = widened(files.back().off) - *oldestSize;
    files.pop_back();
    LogFile& newer = files.back();
    const auto newerSize =
        newer.size != 0 ? std::optional(widened(newer.size)) : fileSize(newer.name);
    if (!newerSize || *newerSize <= remainder)
        return false;
    newer.off = narrowed(remainder);
    newer.size = narrowed(*newerSize);
    return true;
}

// Lists the recent-entry buffer or its end; false when nothing else fits.
bool addRecentEntries(const std::string& cache, int maxsize, std::vector<LogFile>& files) {
    const auto length = static_cast<int>(cache.size());
    if (length == 0)
        return true;
    if (maxsize >= length) {
        files.push_back({0, length, {}});
        return true;
    }
    auto start = static_cast<std::uint32_t>(length - maxsize);
    if (sequenceIndex::findNextLine(cache.data(), length, start) == 0 &&
        static_cast<int>(start) < length)
        files.push_back({narrowed(start), length, {}});
    return false;
}

// Lists the log files that fit beside `taken` newer bytes; of the oldest one perhaps only the end.
void addLogFiles(int maxsize, std::int64_t taken, std::vector<LogFile>& files) {
    for (int index = 0;; ++index) {
        const std::string name = logFileName(index);
        const auto size = fileSize(name);
        if (!size)
            return;
        if (taken + *size > maxsize) {
            auto start = static_cast<std::uint32_t>(taken + *size - maxsize);
            if (sequenceIndex::findNextLine(name, start) == 0 && start < *size)
                files.push_back({narrowed(start), narrowed(*size), name});
            return;
        }
        files.push_back({0, narrowed(*size), name});
        taken += *size;
    }
}

// Lists the sources from the place after the first `off` bytes of line `id` on; false when no
// source contains that place.
bool findPlaceAfterId(const std::string& cache, std::uint32_t id, int off,
                      std::vector<LogFile>& files) {
    files.clear();
    const auto length = static_cast<int>(cache.size());
    std::uint32_t line;
    if (sequenceIndex::findId(cache.data(), length, id, line) == 0) {
        const std::int64_t start = line + widened(off);
        if (start <= length) // up to the NUL after the text
            files.push_back({narrowed(start), length, {}});
        return true;
    }
    if (length > 0)
        files.push_back({0, length, {}});

    for (int index = 0;; ++index) {
        const std::string name = logFileName(index);
        const int result = sequenceIndex::findId(name, id, line);
        if (result == -2)
            return false;
        if (result == 0) {
            files.push_back({narrowed(line + widened(off)), 0, name});
            return files.size() == 1 || carryOver(files);
        }
        files.push_back({0, 0, name});
    }
}

} // namespace

void Logger::findFilesBySize(int maxsize, std::vector<LogFile>& files) {
    files.clear();
    if (addRecentEntries(cache_, maxsize, files))
        addLogFiles(maxsize, static_cast<std::int64_t>(cache_.size()), files);
    report(LOG_DEBUG, "Files found (maxsize= %d):", maxsize);
    reportFiles(files);
}

void Logger::findFilesAfterId(std::uint32_t id, int off, int maxsize, std::vector<LogFile>& files) {
    if (!findPlaceAfterId(cache_, id, off, files)) {
        findFilesBySize(maxsize, files);
        return;
    }
    report(LOG_DEBUG, "Files found (id= 0x%08x, off= %d):", id, off);
    reportFiles(files);
}

} // namespace qwk
