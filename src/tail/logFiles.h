#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sys/types.h>
#include <vector>

#include "support/fileDescriptor.h"
#include "tail/history.h"

namespace qwk::tail {

/// Tells whether the log file was written or rolled.
struct FileState {
    ino_t inode = 0; // 0: there is no log file
    off_t size = 0;

    bool operator==(const FileState& other) const {
        return inode == other.inode && size == other.size;
    }
};

FileState logFileState();

/// The log file and its rolled copies, opened from the newest on as far as they are needed. An
/// open file stays the same one when it is renamed. All operations throw std::system_error when a
/// file exists and cannot be read.
class LogFiles {
public:
    /// Places the reading at the newest entry of the files that the history knows. False when the
    /// files hold none; the reading then begins at the start of the oldest file.
    bool placeAtKnown(History& history);
    /// Places the reading in the newest file that begins at or before this number, or at the start
    /// of the oldest.
    void placeAtNumber(std::uint32_t number);

    /// Reads whole entries from there to the end, oldest first, until `visit` returns false.
    void read(const std::function<bool(Entry&)>& visit);

    /// Whether the log file is still as it was read to its end.
    bool isAtRest() const;

private:
    struct File {
        FileDescriptor descriptor;
        ino_t inode;
        // The reading begins here, and after so many entries.
        std::uint32_t begin = 0;
        std::size_t skipped = 0;
        // How far it came.
        off_t end = 0;
    };

    bool openOlder();
    static bool placeByNumber(File& file, History& history);
    static bool placeByReading(File& file, History& history);
    /// False when `visit` returned false.
    static bool readFile(File& file, const std::function<bool(Entry&)>& visit);

    std::vector<File> files_; // newest first
    int nextIndex_ = 0;
};

} // namespace qwk::tail
