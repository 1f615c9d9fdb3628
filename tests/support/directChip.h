#pragma once

#include "support/board.h"

namespace testSupport {

// The chip without a device between, a hundred times as fast: the linker hands this program's
// system calls to it (see directChip.cpp). Takes the place of a FramDevice. One at a time.
struct DirectDevice {
    DirectDevice(const std::string& path, framEmulator::FramChip& chip);
};

} // namespace testSupport
