#include "logger/stableStorage.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "support/diagnostics.h"

namespace qwk {

UnsyncedFile::UnsyncedFile(std::string path)
    : path_(std::move(path)), file_(openForReading(path_.c_str())),
      openError_(file_.isOpen() ? 0 : errno) {}

std::uint64_t UnsyncedFile::inode() const {
    struct stat status;
    return file_.isOpen() && fstat(file_.get(), &status) == 0 ? status.st_ino : 0;
}

void UnsyncedFile::sync() const {
    if (file_.isOpen() && fsync(file_.get()) == 0)
        return;
    const int error = file_.isOpen() ? errno : openError_;
    report(LOG_ERR, "Cannot sync \"%s\" (%s).", path_.c_str(), errorText(error).c_str());
}

} // namespace qwk
