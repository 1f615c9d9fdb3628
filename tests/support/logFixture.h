#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>

#include "logger/logger.h"
#include "support/random.h"
#include "support/sandbox.h"

namespace testSupport {

// Forgets what an earlier Logger of the same program left, and makes log files as small as can be.
struct EmptyLog {
    EmptyLog() {
        log4cplus::Logger::getInstance("quillwick").removeAllAppenders();
        std::filesystem::remove_all("/var/logperm");
        std::filesystem::create_directory("/var/logperm");
        writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\n");
    }
};

class LogTest : public testing::Test {
protected:
    ~LogTest() override { log4cplus::Logger::getInstance("quillwick").removeAllAppenders(); }

    EmptyLog empty;
    qwk::Logger logger;
};

} // namespace testSupport
