#pragma once

#include <string>

#include "support/paths.h"

namespace qwk {

/// The path of the current log file (`index` 0) or of a rolled file (1 is the newest).
inline std::string logFileName(int index) {
    return index == 0 ? std::string(logFilePath)
                      : std::string(logFilePath) + '.' + std::to_string(index);
}

} // namespace qwk
