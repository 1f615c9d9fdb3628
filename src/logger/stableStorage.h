#pragma once

#include <cstdint>
#include <string>

#include "support/fileDescriptor.h"

namespace qwk {

/// A file or folder whose written content may still be in memory only. It is opened when made, so
/// a later rename does not matter.
class UnsyncedFile {
public:
    explicit UnsyncedFile(std::string path);

    /// 0 when the file did not open.
    std::uint64_t inode() const;

    /// Waits until the content is on stable storage; reports when that fails.
    void sync() const;

private:
    std::string path_;
    FileDescriptor file_;
    int openError_;
};

} // namespace qwk
