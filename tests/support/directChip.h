#pragma once

#include "support/board.h"

namespace testSupport {

// The chip without a device file, a hundred times as fast: the linker redirects this program's
// system calls to it (see directChip.cpp). Replaces a FramDevice. One at a time.
class DirectDevice {
public:
    DirectDevice(const std::string& path, framEmulator::FramChip& chip);
    ~DirectDevice();
};

// The diagnostics without syslog and without a limit. Replaces a SyslogCapture.
class DirectMessages {
public:
    static std::vector<SyslogMessage> take();
};

using DirectBoard = BoardOver<DirectDevice, DirectMessages>;

} // namespace testSupport
