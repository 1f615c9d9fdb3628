// The journal reader on journals with chosen entries and on a running journal daemon.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <random>

#include "journal/journal.h"
#include "support/journalFixture.h"
#include "support/sandbox.h"
#include "support/stopRequest.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;

namespace {
std::function<int()> beforeWatching; // its result, unless 0, becomes that of the call
std::atomic<int> looksInVain{0};

int passOn(const char* name, sd_journal* journal) {
    return reinterpret_cast<int (*)(sd_journal*)>(dlsym(RTLD_NEXT, name))(journal);
}
} // namespace

int sd_journal_next(sd_journal* journal) {
    const int result = passOn(__func__, journal);
    looksInVain += result == 0 ? 1 : 0;
    return result;
}
int sd_journal_get_fd(sd_journal* journal) {
    const int result = beforeWatching ? beforeWatching() : 0;
    return result != 0 ? result : passOn(__func__, journal);
}

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>; // fields and their outcome

class JournalTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all("/run/log");
        std::filesystem::create_directories("/run/log/journal");
    }
    // What comes of the next entry: "<priority>text", "passed over" or "failed".
    static std::string read(qwk::Journal& journal, std::uint64_t stamp = 0) {
        std::int32_t priority = -77;
        std::uint64_t time = 77;
        std::string text = "untouched";
        const int result = journal.readEntry(priority, time, text);
        EXPECT_TRUE(stamp == 0 || time == (result == 1 ? stamp : 77));
        if (result == 1)
            return "<" + std::to_string(priority) + ">" + text;
        EXPECT_TRUE(priority == -77 && text == "untouched");
        return result == 0 ? "passed over" : result == -1 ? "failed" : "unknown result";
    }
    // The last word of the next entry that is not passed over, as a journal daemon's own are.
    static std::string readMessage(qwk::Journal& journal) {
        std::string outcome = read(journal);
        while (outcome == "passed over")
            outcome = read(journal);
        return outcome.substr(outcome.rfind(' ') + 1);
    }
    // All in one journal: what is wrong with one entry does not touch the next. A diagnostic is
    // part of the outcome.
    void expectOutcomes(const Cases& cases) {
        std::vector<std::string> entries;
        for (const auto& [fields, outcome] : cases)
            entries.push_back(fields);
        writeJournal(entries);
        qwk::Journal journal(4);
        for (std::size_t i = 0; i < cases.size(); ++i) {
            std::string outcome = read(journal, 1700000000000001 + i);
            outcome += said();
            EXPECT_TRUE(outcome == cases[i].second) << i << ": " << outcome.substr(0, 100);
        }
    }
    std::string said() {
        std::string texts;
        for (const SyslogMessage& message : syslog.take()) {
            EXPECT_EQ(message.priority, LOG_DAEMON | LOG_ERR);
            texts += ": " + message.text;
        }
        return texts;
    }

    SyslogCapture syslog;
};

} // namespace

TEST_F(JournalTest, theSenderStandsBeforeTheMessage) {
    const std::string name = "SYSLOG_IDENTIFIER=sshd;", pid = "SYSLOG_PID=412;",
                      own = "_COMM=systemd;_PID=1;", host = "_HOSTNAME=board;";
    Cases cases;
    const auto add = [&](const std::string& fields, const std::string& sender) {
        cases.emplace_back(fields + "PRIORITY=3;MESSAGE=m", "<3>" + sender + "m");
    };
    for (const std::string& incomplete : {""s, name + "_PID=1;", pid + "_COMM=systemd;"})
        add(incomplete, "");
    for (const std::string& half : {name, pid, name + "SYSLOG_PID=;"})
        add(half + own, "systemd[1]: ");
    add(own + pid + name + "_KERNEL_DEVICE=+usb:1-1;" + host, "board +usb:1-1: sshd[412]: ");
    add("_HOSTNAME=;_KERNEL_DEVICE=;" + name + pid, "sshd[412]: ");
    add(host, "board ");
    expectOutcomes(cases);
}

TEST_F(JournalTest, thePriorityDecidesAndTheMessageHasToBeThere) {
    const std::string none = ": Failed to read priority field: Operation not permitted";
    std::string noise, even(70000, 'e'); // the journal compresses the latter
    for (std::mt19937 random; noise.size() < 70000;)
        noise += static_cast<char>('<' + random() % 190);
    Cases cases = {{"MESSAGE=m", "failed" + none}, {"PRIORITY=;MESSAGE=m", "failed" + none}};
    const auto add = [&](const std::string& priority, const std::string& outcome) {
        cases.emplace_back("PRIORITY=" + priority + ";MESSAGE=m", outcome);
    };
    for (const std::string& text : {"0"s, "4"s, "-1"s, " +3"s, "3\0x"s})
        add(text, "<" + std::to_string(std::stoi(text)) + ">m");
    add("-99999999999999999999", "<-2147483648>m");
    for (const char* text : {"5", "4294967299", "99999999999999999999"})
        add(text, "passed over");
    for (const char* text : {"3 ", "err", "3x", "0x3", " "})
        add(text, "failed: Failed to parse priority field (\""s + text + "\")");
    for (const char* text : {"PRIORITY=3", "PRIORITY=3;MESSAGE="})
        cases.emplace_back(text, "failed");
    for (const std::string& message : {"two\nlines\n"s, "one\0two"s, "\0none"s, noise, even,
                                       even.substr(0, 65535), even.substr(0, 65536)})
        cases.emplace_back("PRIORITY=3;MESSAGE=" + message,
                           "<3>" + message.substr(0, message.find('\0')).substr(0, 65535));
    expectOutcomes(cases);
}

TEST_F(JournalTest, entriesAreReadAsTheyArrive) {
    std::filesystem::remove_all("/run/log");
    std::optional<Journald> journald;
    qwk::Journal journal(4);
    for (int i = 0; i < 4; ++i) {
        looksInVain = 0;
        auto reading = std::async(
            std::launch::async, [&] { return readMessage(journal); });
        EXPECT_TRUE(eventually(20s, [] { return looksInVain > 0; }));
        if (i == 0)
            journald.emplace(); // only now is there a journal
        if (i == 2)
            journald->rotate(); // the next entry is in a new file
        journald->log(4, "sender", std::to_string(i));
        if (reading.wait_for(20s) != std::future_status::ready)
            qwk::stopRequest().request(SIGTERM); // the test has failed; let it end
        ASSERT_EQ(reading.get(), std::to_string(i));
    }
    qwk::Journal another(4);
    for (const char* word : {"0", "1", "2", "3"})
        EXPECT_EQ(readMessage(another), word);
    beforeWatching = [] { return -EBADMSG; };
    EXPECT_EQ(readMessage(another), "failed");
    EXPECT_EQ(read(another), "failed");
    EXPECT_EQ(said(), ": Failed to wait for changes: Bad message");
    // After the reader found nothing more, and before it watches for changes.
    beforeWatching = [&] {
        journald->log(3, "late", "hidden");
        journald->sync();
        return 0;
    };
    EXPECT_EQ(readMessage(another), "hidden");
    beforeWatching = nullptr;
    qwk::Journal strict(3);
    EXPECT_EQ(readMessage(strict), "hidden");
    EXPECT_EQ(said(), "");
}

// The last test, because the request stands for the rest of the process.
TEST_F(JournalTest, aStopEndsEveryWait) {
    looksInVain = 0;
    qwk::Journal empty(4), missing(4);
    auto waiting = std::async(std::launch::async, readMessage, std::ref(empty));
    // Before and behind the watch, and not in a busy loop.
    EXPECT_TRUE(eventually(
        20s, [] { return looksInVain == 2; }));
    EXPECT_FALSE(eventually(100ms, [] { return looksInVain > 2; }));
    std::filesystem::remove_all("/run/log");
    auto waitingForFolder = std::async(std::launch::async, readMessage, std::ref(missing));
    EXPECT_TRUE(eventually(20s, [] { return looksInVain > 2; }));
    qwk::stopRequest().request(SIGTERM);
    EXPECT_EQ(waiting.get() + waitingForFolder.get(), "failedfailed");
    EXPECT_EQ(said(), "");

    writeJournal({"PRIORITY=3;MESSAGE=kept"});
    qwk::Journal filled(4);
    EXPECT_EQ(read(filled), "<3>kept");
    EXPECT_EQ(read(filled), "failed");
}
