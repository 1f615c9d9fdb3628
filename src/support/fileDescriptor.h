#pragma once

#include <cerrno>
#include <cstddef>
#include <sys/types.h>

namespace qwk {

/// Owner of one descriptor, or of none (-1): closes it exactly once.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() { reset(); }

    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return descriptor_; }
    bool isOpen() const { return descriptor_ >= 0; }

    /// Gives the descriptor away; the caller closes it.
    int release();
    void reset();

private:
    int descriptor_ = -1;
};

/// Repeats a system call while a signal interrupts it.
template<typename Call>
auto retryOnInterrupt(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

/// For the start of a program: gives the standard descriptors that are closed to /dev/null, so that
/// no file or socket gets a number that messages are printed to.
void occupyStandardDescriptors();

/// Opens a file read-only and close-on-exec.
FileDescriptor openForReading(const char* path);

/// Reads up to `length` bytes; 0 at the end of the file, -1 on failure (errno is set).
ssize_t readSome(int descriptor, void* buffer, std::size_t length);

/// Sends all of the bytes to a blocking socket. A call that sends no byte ends the sending without
/// an error. Returns 0, or -1 on failure (errno is set).
int sendAll(int socket, const char* bytes, std::size_t length);

} // namespace qwk
