// Replaces the bus device, and the diagnostics, of a program that is linked with this file. The
// linker's option --wrap directs the calls of the statically linked code here, the product's too.

#include "support/directChip.h"

#include <unistd.h>

#include "support/diagnostics.h"

namespace {

framEmulator::FramChip* connected = nullptr;
int chipDescriptor = -1; // of an empty file, for whose bytes the chip's are taken

ssize_t resultOf(const framEmulator::Transfer& transfer) {
    if (transfer.result >= 0)
        return transfer.result;
    errno = -transfer.result;
    return -1;
}

} // namespace

testSupport::DirectDevice::DirectDevice(const std::string& path, framEmulator::FramChip& chip) {
    writeFile(path, "");
    connected = &chip;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

int __real_close(int descriptor);
ssize_t __real_read(int descriptor, void* data, std::size_t length);
ssize_t __real_write(int descriptor, const void* data, std::size_t length);

// Selects the slave, after each open: the only use of it here.
int __wrap_ioctl(int descriptor, unsigned long, ...) {
    chipDescriptor = descriptor;
    return 0;
}

int __wrap_close(int descriptor) {
    if (descriptor == chipDescriptor)
        chipDescriptor = -1;
    return __real_close(descriptor);
}

ssize_t __wrap_read(int descriptor, void* data, std::size_t length) {
    return descriptor == chipDescriptor
               ? resultOf(connected->read(static_cast<std::uint8_t*>(data), length))
               : __real_read(descriptor, data, length);
}

ssize_t __wrap_write(int descriptor, const void* data, std::size_t length) {
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
