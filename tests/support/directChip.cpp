// What a program linked with this file has in the place of a bus device, and without diagnostics.
// The calls of the statically linked code, the product's among it, come here by the linker's option
// --wrap.

#include "support/directChip.h"

#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

#include "support/diagnostics.h"

namespace testSupport {
namespace {

constexpr int chipDescriptor = 1 << 20; // of no open file
std::string devicePath;
framEmulator::FramChip* connected = nullptr;

ssize_t resultOf(const framEmulator::Transfer& transfer) {
    if (transfer.result >= 0)
        return transfer.result;
    errno = -transfer.result;
    return -1;
}

} // namespace

DirectDevice::DirectDevice(const std::string& path, framEmulator::FramChip& chip) {
    devicePath = path;
    connected = &chip;
}

DirectDevice::~DirectDevice() {
    devicePath.clear();
}

} // namespace testSupport

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

int __real_open64(const char* path, int flags, ...);
int __real_close(int descriptor);
ssize_t __real_read(int descriptor, void* data, std::size_t length);
ssize_t __real_write(int descriptor, const void* data, std::size_t length);

int __wrap_open64(const char* path, int flags, ...) {
    if (path == testSupport::devicePath)
        return testSupport::chipDescriptor;
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    return __real_open64(path, flags, mode);
}

int __wrap_close(int descriptor) {
    return descriptor == testSupport::chipDescriptor ? 0 : __real_close(descriptor);
}

// Selects the slave: the only use of it here.
int __wrap_ioctl(int, unsigned long, ...) {
    return 0;
}

ssize_t __wrap_read(int descriptor, void* data, std::size_t length) {
    using namespace testSupport;
    return descriptor == chipDescriptor
               ? resultOf(connected->read(static_cast<std::uint8_t*>(data), length))
               : __real_read(descriptor, data, length);
}

ssize_t __wrap_write(int descriptor, const void* data, std::size_t length) {
    using namespace testSupport;
    return descriptor == chipDescriptor
               ? resultOf(connected->write(static_cast<const std::uint8_t*>(data), length))
               : __real_write(descriptor, data, length);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace qwk {

void report(int /*severity*/, const char* /*format*/, ...) {}

std::string errorText(int errorNumber) {
    return std::to_string(errorNumber);
}

} // namespace qwk
