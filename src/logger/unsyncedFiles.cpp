#include "logger/unsyncedFiles.h"

#include <cerrno>
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
    return file_.isOpen() && ::fstat(file_.get(), &opened) == 0 &&
           ::stat(path_.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

void StableFile::sync() const {
    if (file_.isOpen() && retryOnInterrupt([&] { return ::fsync(file_.get()); }) == 0)
        return;
    const int error = file_.isOpen() ? errno : openError_;
    report(LOG_ERR, "Cannot sync \"%s\" (%s).", path_.c_str(), errorText(error).c_str());
}

UnsyncedFiles::UnsyncedFiles()
    : folder_(std::make_shared<const StableFile>(logFolderPath)),
      logFile_(std::make_shared<const StableFile>(logFilePath)) {}

StableFiles UnsyncedFiles::take() {
    if (!std::exchange(lineWritten_, false))
        return {};
    StableFiles files{logFile_};
    if (!logFile_->isCurrent()) { // a roll: the open file is the newest rolled copy now
        logFile_ = std::make_shared<const StableFile>(logFilePath);
        files.push_back(logFile_);
        folderChanged_ = true;
    }
    if (std::exchange(folderChanged_, false))
        files.push_back(folder_);
    return files;
}

} // namespace qwk
