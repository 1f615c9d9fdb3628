// The settings, the log line, the recent-entry buffer and the rolling log file.

#include <syslog.h>
#include <tuple>

#include "support/logFixture.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;
using qwk::Logger;
namespace fs = std::filesystem;

namespace {

class LoggerTest : public testing::Test {
protected:
    LoggerTest() { setenv("TZ", "UTC0", 1); }
    EmptyLog empty;
    SyslogCapture syslog;
};

} // namespace

TEST_F(LoggerTest, unusableSettingsFallBackToTheDefault) {
    const std::string p = "log4cplus.";
    // The refused keys, each with a blank after it.
    std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"logsize=1\nloglevel=6\nlogcount=1\n", 4, ""},
        {"\x7f\x45\x4c\x46\0\xff=\xfe\n\0\n=\n"s, 4, ""},
        {p + "logsize=524288\n" + p + "logcount=2\n" + p + "loglevel=1", 1, ""},
        {p + "logsize=99999999999\n" + p + "logcount=99999999999\n" + p + "loglevel=6", 6, ""},
        {p + "loglevel=+3", 3, ""},
        {p + "logcount=x\n" + p + "loglevel=", 4, "loglevel logcount "}};
    for (const std::string setting :
         {"logsize=524287", "logsize=-600000", "logsize=600000M", "logsize=0x100000",
          "logsize=-99999999999999999999", "loglevel=0", "loglevel=7", "loglevel=4294967299",
          "loglevel=3 x", "logcount=1", "logcount=-4294967290"})
        cases.emplace_back(p + setting, 4, setting.substr(0, setting.find('=')) + " ");
    for (const auto& [file, level, keys] : cases) {
        SCOPED_TRACE(file);
        writeFile(qwk::configurationPath, file);
        EXPECT_EQ(Logger().logLevel(), level);
        std::string refused;
        for (const SyslogMessage& message : syslog.take()) {
            const std::string key = message.text.substr(0, message.text.find(' '));
            const char* standard = key == "logsize" ? "5242880" : key == "loglevel" ? "4" : "20";
            EXPECT_EQ(message.text,
                      key + " in \"/etc/quillwick.conf\" invalid. Using " + standard + ".");
            EXPECT_EQ(message.priority, LOG_DAEMON | LOG_WARNING);
            refused += key + " ";
        }
        EXPECT_EQ(refused, keys);
    }
}

TEST_F(LoggerTest, theLogRollsAtTheConfiguredSizeAndCount) {
    const std::tuple<const char*, std::uint32_t, int> cases[] = {
        {"log4cplus.logsize=524287\nlog4cplus.logcount=1\n", 5242880, 20},
        {"log4cplus.logsize=1048577\nlog4cplus.logcount=+2\n", 1048577, 2}};
    for (const auto& [file, size, count] : cases) {
        EmptyLog();
        writeFile(qwk::configurationPath, file);
        Logger logger;
        const std::uint32_t lines = size / 65536 + 1;
        for (std::uint32_t i = 0; i < lines * static_cast<std::uint32_t>(count + 1); ++i)
            logger.sink(i, 6, 0, std::string(65536 - 36, 'm')); // a line of 65536 bytes
        EXPECT_EQ(fs::file_size(logFile(1)), lines * 65536);
        EXPECT_TRUE(fs::exists(logFile(count)));
        EXPECT_FALSE(fs::exists(logFile(count + 1)));
    }
}

TEST_F(LoggerTest, noLineIsLostOverRollsAndRestarts) {
    std::string expected = "[00000000] cut off\n";
    writeFile(logFile(), expected.substr(0, expected.size() - 1)); // by a power cut
    std::uint32_t id = 1;
    for (int copies = 1; copies <= 3; ++copies) {
        log4cplus::Logger::getInstance("quillwick").removeAllAppenders(); // as if restarted
        Logger logger;
        const auto write = [&](const std::string& message) {
            expected += logger.formatLine(id, 6, 0, message) + "\n";
            logger.sink(id++, 6, 0, message);
        };
        write("two\nlines, 100 %n %m \\");
        while (fs::file_size(logFile()) > 0)
            write(std::string(id % 7919, 'm'));
        EXPECT_TRUE(fs::exists(logFile(copies)));
        write("kept for the next");
    }
    EXPECT_TRUE(readFile(logFile(3)) + readFile(logFile(2)) + readFile(logFile(1)) +
                    readFile(logFile()) ==
                expected);
}

TEST_F(LoggerTest, linesBeginWithTheNumberAndTheLocalTime) {
    const char* const europe = "CET-1CEST,M3.5.0,M10.5.0/3";
    const std::tuple<const char*, std::uint32_t, std::uint64_t, const char*> cases[] = {
        {"UTC0", 0x2A, 1706708707123000, "[0000002a] 2024-01-31 13:45:07.123 "},
        {"UTC0", 0xFFFFFFFF, 4102444800000000, "[ffffffff] 2100-01-01 00:00:00.000 "},
        {"EST5", 1, 1704067200000000, "[00000001] 2023-12-31 19:00:00.000 "},
        {europe, 1, 1711846799999499, "[00000001] 2024-03-31 01:59:59.999 "},
        {europe, 1, 1711846799999500, "[00000001] 2024-03-31 03:00:00.000 "}};
    Logger logger;
    for (const auto& [zone, id, time, head] : cases) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(logger.formatLine(id, 3, time, " two\nlines\0\n"s), head + " two\nlines\0\n"s);
    }
}

TEST_F(LoggerTest, numbersGoOnAfterTheLastLineOfTheCurrentFile) {
    const std::string one = "[00000001] 2024-01-01 00:00:00.000 a\n";
    const std::pair<std::string, std::uint32_t> cases[] = {
        {"", 0}, {one + "[0000002a] cut of", 0x2B}, {one + "[ffffffff] b\n", 0}};
    fs::remove_all(qwk::logFolderPath);
    Logger logger;
    logger.lock();
    logger.sink(1, 6, 0, "lost, and no harm done");
    logger.unlock();
    EXPECT_TRUE(syslog.waitFor("Cannot sync \"/var/logperm/larkspur.log\" (No such file", 10s));
    fs::create_directory(qwk::logFolderPath);
    writeFile(logFile(1), one + one);
    for (const auto& [content, expected] : cases) {
        std::uint32_t next = 77;
        logger.nextSequenceNumber(next);
        EXPECT_EQ(next, 0U); // without a file
        writeFile(logFile(), content);
        logger.nextSequenceNumber(next);
        EXPECT_EQ(next, expected) << content;
        fs::remove(logFile());
    }
}
