// The settings, the log line, the recent-entry buffer and the rolling log file.

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <optional>
#include <sys/socket.h>
#include <syslog.h>
#include <tuple>

#include "logger/logger.h"
#include "support/sandbox.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;
namespace fs = std::filesystem;

namespace {

const std::string logFile = "/var/logperm/larkspur.log";
const std::string configuration = "/etc/quillwick.conf";

struct Logger : qwk::Logger {
    // The next one would share the log file with the appender that the library keeps.
    ~Logger() override { log4cplus::Logger::getInstance("quillwick").removeAllAppenders(); }

    void write(std::uint32_t id, const std::string& message) {
        const std::lock_guard<Logger> held(*this);
        sink(id, 6, 0, message);
    }
    std::string recentEntries() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        const Descriptor reading(ends[0]), writing(ends[1]);
        qwk::SendState state{};
        state.socket = writing.get();
        bool wouldBlock = false;
        char text[4096];
        const std::lock_guard<Logger> held(*this);
        EXPECT_GT(sendCache(state, 0, wouldBlock), 0);
        const auto length = recv(reading.get(), text, sizeof text, 0);
        return std::string(text, static_cast<std::size_t>(length - 1)); // without the final NUL
    }
};

class LoggerTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        fs::remove_all("/var/logperm");
        fs::create_directory("/var/logperm");
        fs::remove(configuration);
    }
    SyslogCapture syslog;
};

std::string copy(int number) {
    return logFile + "." + std::to_string(number);
}

} // namespace

TEST_F(LoggerTest, unusableSettingsFallBackToTheDefault) {
    // The keys that are refused each have a blank behind them.
    const auto expectSettings = [&](const std::string& file, int level, const std::string& keys) {
        SCOPED_TRACE(file);
        writeFile(configuration, file);
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
    };
    const std::string p = "log4cplus.";
    for (const std::string& file :
         {"logsize=1\nloglevel=6\nlogcount=1\n"s, "\x7f\x45\x4c\x46\0\xff=\xfe\n\0\n=\n"s,
          "# log4cplus.loglevel=2\n"s, p + "logsize=99999999999", p + "logcount=99999999999"})
        expectSettings(file, 4, "");
    for (const std::string text : {"1", "6", "+3"})
        expectSettings(p + "loglevel=" + text + "\n", std::stoi(text), "");
    for (const std::string text :
         {"logsize=524287", "logsize=-600000", "logsize=1M", "logsize=0x100000",
          "logsize=-99999999999999999999", "loglevel=0", "loglevel=7", "loglevel=4294967299",
          "loglevel=warning", "logcount=1", "logcount=-4294967290"})
        expectSettings(p + text, 4, text.substr(0, text.find('=')) + " ");
    expectSettings(p + "logcount=x\n" + p + "loglevel=\n" + p + "logsize=0\n", 4,
                   "logsize loglevel logcount ");
}

TEST_F(LoggerTest, theLogRollsAtTheConfiguredSizeAndCount) {
    const std::tuple<const char*, std::uint32_t, int> cases[] = {
        {"log4cplus.logsize=524287\nlog4cplus.logcount=1\n", 5242880, 20},
        {"log4cplus.logsize=1048577\nlog4cplus.logcount=+2\n", 1048577, 2}};
    const std::string message(65536 - 36, 'm'); // lines of 65536 bytes
    for (const auto& [file, size, count] : cases) {
        SetUp();
        writeFile(configuration, file);
        Logger logger;
        const std::uint32_t lines = size / 65536 + 1;
        for (std::uint32_t i = 0; i < lines * static_cast<std::uint32_t>(count + 1); ++i)
            logger.write(i, message);
        EXPECT_EQ(fs::file_size(copy(1)), lines * 65536);
        EXPECT_TRUE(fs::exists(copy(count)));
        EXPECT_FALSE(fs::exists(copy(count + 1)));
    }
}

TEST_F(LoggerTest, noLineIsLostOverRollsAndRestarts) {
    writeFile(configuration, "log4cplus.logsize=524288\nlog4cplus.logcount=3\n");
    std::string expected = "[00000000] cut off\n";
    writeFile(logFile, expected.substr(0, expected.size() - 1)); // by a power cut
    std::uint32_t id = 1;
    const auto writeUntilRolled = [&] {
        Logger logger;
        const auto write = [&](const std::string& message) {
            expected += logger.formatLine(id, 6, 0, message) + "\n";
            logger.write(id, message);
            ++id;
        };
        write("two\nlines, 100 %n %m \\");
        while (fs::file_size(logFile) > 0)
            write(std::string(id % 7919, 'm'));
        EXPECT_GT(fs::file_size(copy(1)), 524288U);
        write("kept for the next");
    };
    const auto written = [] {
        return readFile(copy(3)) + readFile(copy(2)) + readFile(copy(1)) + readFile(logFile);
    };
    writeUntilRolled();
    writeUntilRolled();
    writeUntilRolled();
    EXPECT_TRUE(written() == expected);
    const std::size_t oldest = readFile(copy(3)).size();
    writeUntilRolled();
    EXPECT_TRUE(written() == expected.substr(oldest));
}

TEST_F(LoggerTest, linesBeginWithTheNumberAndTheLocalTime) {
    const char *const utc = "UTC0", *const europe = "CET-1CEST,M3.5.0,M10.5.0/3";
    const std::tuple<const char*, std::uint32_t, std::uint64_t, const char*> cases[] = {
        {utc, 0x2A, 1706708707123000, "[0000002a] 2024-01-31 13:45:07.123 "},
        {utc, 0, 0, "[00000000] 1970-01-01 00:00:00.000 "},
        {utc, 0xFFFFFFFF, 1700000000999499, "[ffffffff] 2023-11-14 22:13:20.999 "},
        {utc, 1, 1704067199999500, "[00000001] 2024-01-01 00:00:00.000 "},
        {utc, 1, 4102444800000000, "[00000001] 2100-01-01 00:00:00.000 "},
        {"EST5", 1, 1704067200000000, "[00000001] 2023-12-31 19:00:00.000 "},
        {europe, 1, 1711846799999499, "[00000001] 2024-03-31 01:59:59.999 "},
        {europe, 1, 1711846799999500, "[00000001] 2024-03-31 03:00:00.000 "},
        {europe, 1, 1729990800000000, "[00000001] 2024-10-27 02:00:00.000 "}};
    Logger logger;
    for (const auto& [zone, id, time, head] : cases) {
        setenv("TZ", zone, 1);
        for (const std::string& message : {""s, " two\nlines\n"s, "zero\0byte"s})
            EXPECT_EQ(logger.formatLine(id, 3, time, message), head + message);
    }
}

TEST_F(LoggerTest, recentEntriesAreSeparatedByOneNewline) {
    const std::string head = "[00000001] 1970-01-01 00:00:00.000 ";
    const std::string cleared = "cleared";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, ""},
        {{"one", "two"}, head + "one\n" + head + "two"},
        {{"one\n", "two"}, head + "one\n" + head + "two"},
        {{"one\n\n", ""}, head + "one\n\n" + head},
        {{"one", cleared, "two"}, head + "two"},
        {{cleared}, ""}};
    for (const auto& [messages, text] : cases) {
        Logger logger;
        bool filled = false;
        for (const std::string& message : messages) {
            EXPECT_EQ(logger.isCacheFilled(), filled);
            logger.lock();
            message == cleared ? logger.clearCache() : logger.addToCache(1, 3, 0, message);
            logger.unlock();
            filled = filled || message != cleared;
        }
        EXPECT_EQ(logger.isCacheFilled(), filled); // and stays so when it is cleared
        EXPECT_EQ(logger.recentEntries(), text);
        EXPECT_FALSE(fs::exists(logFile) && fs::file_size(logFile) > 0);
    }
    EXPECT_TRUE(syslog.take().empty());
}

TEST_F(LoggerTest, numbersGoOnAfterTheLastLineOfTheCurrentFile) {
    const std::string one = "[00000001] 2024-01-01 00:00:00.000 a\n";
    const std::pair<std::optional<std::string>, std::uint32_t> cases[] = {
        {std::nullopt, 0},
        {one, 0},
        {one + "[00000002] 2024-01-01 00:00:00.000 b\n", 3},
        {one + "[fffffffe] 2024-01-01 00:00:00.000 b\n", 0xFFFFFFFF},
        {one + "[ffffffff] 2024-01-01 00:00:00.000 b\n", 0},
        {one + "[0000002a] b\n[\n]\nforeign [00000007]\n\n", 0x2B},
        {one + "[0000002a] cut of", 0x2B},
        {"no\nnumber\nat all\n", 0}};
    fs::remove_all("/var/logperm");
    Logger logger;
    logger.write(1, "lost, and no harm done");
    fs::create_directory("/var/logperm");
    writeFile(copy(1), one + one);
    for (const auto& [content, expected] : cases) {
        fs::remove(logFile);
        if (content)
            writeFile(logFile, *content);
        std::uint32_t next = 77;
        logger.nextSequenceNumber(next);
        EXPECT_EQ(next, expected) << content.value_or("no file");
    }
}
