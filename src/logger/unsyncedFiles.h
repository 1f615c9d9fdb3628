#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/fileDescriptor.h"

namespace qwk {

/// A file or folder that stays open, so that it can be synced after a rename and when the process
/// has no descriptor left.
class StableFile {
public:
    /// A failure to open is reported by sync().
    explicit StableFile(std::string path);

    /// Whether `path` still names this file.
    bool isCurrent() const;

    /// Waits until the content is on stable storage; reports a failure.
    void sync() const;

private:
    const std::string path_;
    const FileDescriptor file_;
    const int openError_;
};

using StableFiles = std::vector<std::shared_ptr<const StableFile>>;

/// Knows which files have lines that may not be on stable storage. Its user holds the log's lock.
class UnsyncedFiles {
public:
    /// Opens the log file and its folder, before the first line is written.
    UnsyncedFiles();

    /// Notes that a line was written to the log file.
    void lineWritten() { lineWritten_ = true; }

    /// The files to sync after writing, none if no line was written since the last call: the log
    /// file and, after a roll, also its newest rolled copy and the folder. Sync them without the
    /// lock.
    StableFiles take();

private:
    const std::shared_ptr<const StableFile> folder_;
    std::shared_ptr<const StableFile> logFile_;
    /// The folder has an entry that may not be on stable storage: at first that of the log file.
    bool folderChanged_ = true;
    bool lineWritten_ = false;
};

} // namespace qwk
