#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <string>

#include "logger/logger.h"
#include "support/paths.h"
#include "support/sandbox.h"

namespace testSupport {

/// The log file, or a rolled copy of it.
inline std::string logFile(int index = 0) {
    return index == 0 ? qwk::logFilePath : qwk::logFilePath + ("." + std::to_string(index));
}

/// Forgets what an earlier Logger of this process left, and makes log files as small as can be.
struct EmptyLog {
    EmptyLog() {
        log4cplus::Logger::getInstance("quillwick").removeAllAppenders();
        std::filesystem::remove_all(qwk::logFolderPath);
        std::filesystem::create_directory(qwk::logFolderPath);
        writeFile(qwk::configurationPath, "log4cplus.logsize=524288\n");
    }
};

class LogTest : public testing::Test {
protected:
    EmptyLog empty;
    qwk::Logger logger;
};

} // namespace testSupport
