#include "support/fileDescriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
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

void occupyStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

FileDescriptor openForReading(const char* path) {
    return FileDescriptor(retryOnInterrupt([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
}

ssize_t readSome(int descriptor, void* buffer, std::size_t length) {
    return retryOnInterrupt([&] { return read(descriptor, buffer, length); });
}

int sendAll(int socket, const char* bytes, std::size_t length) {
    for (std::size_t done = 0; done < length;) {
        const ssize_t sent =
            retryOnInterrupt([&] { return send(socket, bytes + done, length - done, 0); });
        if (sent < 0)
            return -1;
        if (sent == 0)
            break;
        done += static_cast<std::size_t>(sent);
    }
    return 0;
}

} // namespace qwk
