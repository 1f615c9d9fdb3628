#pragma once

#include "support/board.h"

namespace testSupport {

// The chip without a device in between, a hundred times as fast as a FramDevice, which it replaces:
// the linker redirects this program's system calls to it (see directChip.cpp). One at a time.
struct DirectDevice {
    DirectDevice(const std::string& path, framEmulator::FramChip& chip);
};

} // namespace testSupport
