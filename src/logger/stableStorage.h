#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/fileDescriptor.h"

namespace qwk {

/// A file or folder that is kept open, so that it can be synced after a rename and also when the
/// process has no descriptor left.
class StableFile {
public:
    /// A failure to open shows in sync().
    explicit StableFile(std::string path);

    /// Whether `path` still names this file.
    bool isCurrent() const;

    /// Waits until the content is on stable storage; reports when that fails.
    void sync() const;

private:
    const std::string path_;
    const FileDescriptor file_;
    const int openError_;
};

using StableFiles = std::vector<std::shared_ptr<const StableFile>>;

/// Knows which files the lines of a log went into. Its user holds the log's lock.
class LogStorage {
public:
    /// Opens the log file, before the first line is written.
    LogStorage();

    /// What has to be synced once lines were written: the log file and, after a roll, also what it
    /// was before and the folder. To be synced without the lock.
    StableFiles filesToSync();

private:
    const std::shared_ptr<const StableFile> folder_;
    std::shared_ptr<const StableFile> logFile_;
    /// The folder has an entry that may not be on stable storage: at first, the log file's own.
    bool folderChanged_ = true;
};

/// Ends a line that a power cut or a full disk left without its end, so that the next one begins
/// at a line start.
void endTornLine();

} // namespace qwk
