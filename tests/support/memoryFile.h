#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

#include "support/fileDescriptor.h"

namespace testSupport {

// A file in memory that can be opened by its path, up to 4 GiB and sparse.
class MemoryFile {
public:
    MemoryFile() : file_(::memfd_create("text", MFD_CLOEXEC)) {}

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }
    int descriptor() const { return file_.get(); }

    void set(const std::string& text) {
        if (::ftruncate(file_.get(), 0) != 0)
            throw std::system_error(errno, std::generic_category());
        write(0, text);
    }
    void write(std::int64_t offset, const std::string& text) {
        if (::pwrite(file_.get(), text.data(), text.size(), offset) !=
            static_cast<ssize_t>(text.size()))
            throw std::system_error(errno, std::generic_category());
    }

private:
    const qwk::FileDescriptor file_;
};

} // namespace testSupport
