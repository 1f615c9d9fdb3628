// The journal reader on journals with chosen entries and on a running journal daemon.

#include <atomic>
#include <csignal>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <optional>

#include "journal/journal.h"
#include "support/journalFixture.h"
#include "support/paths.h"
#include "support/sandbox.h"
#include "support/stopRequest.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;

namespace {
std::atomic<int> looksInVain{0};
std::size_t dataThreshold = 0;
std::function<void()> onceInVain;
} // namespace

int sd_journal_next(sd_journal* journal) {
    static const auto next = reinterpret_cast<int (*)(sd_journal*)>(dlsym(RTLD_NEXT, __func__));
    const int result = next(journal);
    EXPECT_EQ(sd_journal_get_data_threshold(journal, &dataThreshold), 0);
    looksInVain += result == 0 ? 1 : 0;
    if (const auto action = result == 0 ? std::exchange(onceInVain, nullptr) : nullptr)
        action();
    return result;
}

namespace {

// A reader on a thread of its own, which a test that fails does not wait for.
struct Reading {
    std::future<std::string> message;
    ~Reading() {
        if (message.valid())
            qwk::stopRequest().request(SIGTERM);
    }
};

class JournalTest : public testing::Test {
protected:
    // The result for the next entry: "<priority>text", "skipped" or "failed".
    static std::string read(qwk::Journal& journal, std::uint64_t stamp = 0) {
        std::int32_t priority = -77;
        std::uint64_t time = 77;
        std::string text = "untouched";
        const int result = journal.readEntry(priority, time, text);
        EXPECT_TRUE(stamp == 0 || time == (result == 1 ? stamp : 77));
        EXPECT_TRUE(result == 1 || (priority == -77 && text == "untouched"));
        if (result == 1)
            return "<" + std::to_string(priority) + ">" + text;
        return result == 0 ? "skipped" : "failed";
    }
    // The last word of the next entry that is not skipped, as a journal daemon's own entries are.
    static std::string readMessage(qwk::Journal& journal) {
        std::string outcome = "skipped";
        while (outcome == "skipped")
            outcome = read(journal);
        return outcome.substr(outcome.rfind(' ') + 1);
    }
    SyslogCapture syslog;
};

} // namespace

// All in one journal: a fault of one entry does not affect the next.
TEST_F(JournalTest, entriesBecomeTextWithTheirSenderOrSayWhyNot) {
    const std::string name = "SYSLOG_IDENTIFIER=sshd;", pid = "SYSLOG_PID=412;",
                      own = "_COMM=systemd;_PID=1;", host = "_HOSTNAME=board;",
                      device = "_KERNEL_DEVICE=+usb:1-1;", end = "PRIORITY=3;MESSAGE=",
                      even(70000, 'e'); // the journal compresses the latter
    std::vector<std::pair<std::string, std::string>> cases = {
        {name + "_PID=1;" + end + "m", "<3>m"},
        {pid + "_COMM=systemd;" + end + "m", "<3>m"},
        {name + own + end + "m", "<3>systemd[1]: m"},
        {pid + own + end + "m", "<3>systemd[1]: m"},
        {own + pid + name + device + host + end + "m", "<3>board +usb:1-1: sshd[412]: m"},
        {host + end + "two\nlines\n", "<3>board two\nlines\n"},
        {end + "one\0two"s, "<3>one"},
        {end + even, "<3>" + even.substr(0, 65535)},
        {"PRIORITY=-99999999999999999999;MESSAGE=m", "<-2147483648>m"},
        {"PRIORITY=3", "failed"},
        {"MESSAGE=m", "failed: Failed to read priority field: Operation not permitted"}};
    for (const std::string& text : {"0"s, "4"s, "-1"s, " +3"s, "3\0x"s})
        cases.emplace_back("PRIORITY=" + text + ";MESSAGE=m",
                           "<" + std::to_string(std::stoi(text)) + ">m");
    for (const std::string text : {"5", "4294967299", "99999999999999999999"})
        cases.emplace_back("PRIORITY=" + text + ";MESSAGE=m", "skipped");
    for (const std::string text : {"3 ", "err", "3x", "0x3", " "})
        cases.emplace_back("PRIORITY=" + text + ";MESSAGE=m",
                           "failed: Failed to parse priority field (\"" + text + "\")");
    std::vector<std::string> entries;
    for (const auto& [fields, outcome] : cases)
        entries.push_back(fields);
    writeJournal(entries);
    qwk::Journal journal(4);
    std::uint64_t stamp = 1700000000000001;
    for (const auto& [fields, expected] : cases) {
        std::string outcome = read(journal, stamp++);
        for (const SyslogMessage& message : syslog.take())
            outcome += ": " + message.text;
        EXPECT_TRUE(outcome == expected) << fields.substr(0, 100) << ": " << outcome.substr(0, 100);
    }
    // Room for the longest text and its name: zstd returns more than is asked for, other
    // compressions do not.
    EXPECT_GE(dataThreshold, 65535 + std::string("MESSAGE=").size());
}

TEST_F(JournalTest, entriesAreReadAsTheyArrive) {
    std::optional<Journald> journald;
    qwk::Journal journal(5);
    for (int i = 0; i < 4; ++i) {
        looksInVain = 0;
        Reading reading{std::async(std::launch::async, readMessage, std::ref(journal))};
        EXPECT_TRUE(eventually(20s, [] { return looksInVain > 0; }));
        if (i == 0)
            journald.emplace(); // only now is there a journal
        if (i == 2)
            journald->rotate(); // the next entry is in a new file
        journald->log(5, "sender", std::to_string(i));
        ASSERT_TRUE(reading.message.wait_for(20s) == std::future_status::ready);
        ASSERT_EQ(reading.message.get(), std::to_string(i));
    }
    qwk::Journal another(5);
    for (const char* word : {"0", "1", "2", "3"})
        EXPECT_EQ(readMessage(another), word);
    // After the reader found nothing more, and before it watches for changes.
    onceInVain = [&] {
        journald->log(3, "late", "hidden");
        journald->sync();
    };
    EXPECT_EQ(readMessage(another), "hidden");
}

TEST_F(JournalTest, aStopEndsEveryWait) {
    looksInVain = 0;
    std::filesystem::create_directories(qwk::journalFolderPath);
    qwk::Journal empty(4), missing(4);
    auto waiting = std::async(std::launch::async, readMessage, std::ref(empty));
    // Before and during the watch, and not in a busy loop.
    EXPECT_TRUE(eventually(
        20s, [] { return looksInVain == 2; }));
    EXPECT_FALSE(eventually(100ms, [] { return looksInVain > 2; }));
    std::filesystem::remove(qwk::journalFolderPath);
    auto inVain = std::async(std::launch::async, readMessage, std::ref(missing));
    EXPECT_TRUE(eventually(20s, [] { return looksInVain > 2; }));
    qwk::stopRequest().request(SIGTERM);
    EXPECT_EQ(waiting.get() + inVain.get(), "failedfailed");
    EXPECT_EQ(read(empty), "failed"); // a stop was requested before
    EXPECT_TRUE(syslog.take().empty());
}
