#include "support/fileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace qwk {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        descriptor_ = other.release();
    }
    return *this;
}

int FileDescriptor::release() {
    return std::exchange(descriptor_, -1);
}

void FileDescriptor::reset() {
    // Never retried: on Linux the number is free again whatever close() returns.
    if (descriptor_ >= 0)
        static_cast<void>(close(std::exchange(descriptor_, -1)));
}

FileDescriptor openForReading(const char* path) {
    return FileDescriptor(retryOnInterrupt([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
}

ssize_t readSome(int descriptor, void* buffer, std::size_t length) {
    return retryOnInterrupt([&] { return read(descriptor, buffer, length); });
}

} // namespace qwk
