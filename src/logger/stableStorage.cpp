#include "logger/stableStorage.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "support/diagnostics.h"
#include "support/paths.h"

namespace qwk {

StableFile::StableFile(std::string path)
    : path_(std::move(path)), file_(openForReading(path_.c_str())),
      openError_(file_.isOpen() ? 0 : errno) {}

bool StableFile::isCurrent() const {
    struct stat opened;
    struct stat named;
    return file_.isOpen() && fstat(file_.get(), &opened) == 0 && stat(path_.c_str(), &named) == 0 &&
           opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

void StableFile::sync() const {
    if (file_.isOpen() && retryOnInterrupt([&] { return fsync(file_.get()); }) == 0)
        return;
    const int error = file_.isOpen() ? errno : openError_;
    report(LOG_ERR, "Cannot sync \"%s\" (%s).", path_.c_str(), errorText(error).c_str());
}

LogStorage::LogStorage()
    : folder_(std::make_shared<const StableFile>(logFolderPath)),
      logFile_(std::make_shared<const StableFile>(logFilePath)) {}

StableFiles LogStorage::filesToSync() {
    StableFiles files{logFile_};
    if (!logFile_->isCurrent()) { // a roll: what was open is the newest rolled copy now
        logFile_ = std::make_shared<const StableFile>(logFilePath);
        files.push_back(logFile_);
        folderChanged_ = true;
    }
    if (std::exchange(folderChanged_, false))
        files.push_back(folder_);
    return files;
}

void endTornLine() {
    const FileDescriptor file(
        retryOnInterrupt([] { return open(logFilePath, O_RDWR | O_APPEND | O_CLOEXEC); }));
    char last = '\n';
    // Where this fails, opening the log file fails, too, and is reported there.
    if (file.isOpen() && lseek(file.get(), -1, SEEK_END) >= 0 &&
        readSome(file.get(), &last, 1) == 1 && last != '\n')
        static_cast<void>(!write(file.get(), "\n", 1));
}

} // namespace qwk
