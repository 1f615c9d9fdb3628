// The journal reader on journals with chosen entries and on a running journal daemon.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sstream>

#include "journal/journal.h"
#include "support/journalFixture.h"
#include "support/sandbox.h"
#include "support/stopRequest.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;

// The reader's calls of these functions of the journal library pass here, and can fail.
namespace {
std::atomic<const char*> failing{""};
std::atomic<int> looksInVain{0};
std::function<void()> beforeWatching;

template<typename... Arguments>
int passOn(const char* name, Arguments... arguments) {
    if (failing.load() == std::string_view(name))
        return -EBADMSG;
    return reinterpret_cast<int (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
}
} // namespace

int sd_journal_open(sd_journal** journal, int flags) {
    return passOn(__func__, journal, flags);
}
int sd_journal_next(sd_journal* journal) {
    const int result = passOn(__func__, journal);
    looksInVain += result == 0 ? 1 : 0;
    return result;
}
int sd_journal_get_fd(sd_journal* journal) {
    if (beforeWatching)
        std::exchange(beforeWatching, nullptr)();
    return passOn(__func__, journal);
}

namespace {

constexpr std::uint64_t firstStamp = 1700000000000001;

JournalFields entry(const std::string& priority, const std::string& message) {
    return {{"PRIORITY", priority}, {"MESSAGE", message}};
}

using Cases = std::vector<std::pair<JournalFields, std::string>>; // an entry, its outcome

class JournalTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all("/run/log");
        std::filesystem::create_directories("/run/log/journal");
        looksInVain = 0;
    }
    // What comes of the next entry: "<priority>text", "passed over" or "failed".
    static std::string read(qwk::Journal& journal, std::uint64_t* stamp = nullptr) {
        std::int32_t priority = -77;
        std::uint64_t time = 77;
        std::string text = "untouched";
        const int result = journal.readEntry(priority, time, text);
        if (stamp != nullptr)
            *stamp = time;
        if (result == 1)
            return "<" + std::to_string(priority) + ">" + text;
        EXPECT_TRUE(priority == -77 && time == 77 && text == "untouched");
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
        std::vector<JournalEntry> entries;
        for (const auto& [fields, outcome] : cases)
            entries.push_back({firstStamp + entries.size(), fields});
        writeJournal(entries);
        qwk::Journal journal(4);
        for (std::size_t i = 0; i < cases.size(); ++i) {
            std::uint64_t stamp = 0;
            std::string outcome = read(journal, &stamp);
            for (const std::string& text : said())
                outcome += ": " + text;
            EXPECT_TRUE(outcome == cases[i].second) << i << ": " << outcome.substr(0, 100);
            EXPECT_EQ(stamp, outcome[0] == '<' ? entries[i].realtime : 77) << i;
        }
    }
    std::vector<std::string> said() {
        std::vector<std::string> texts;
        for (const SyslogMessage& message : syslog.take()) {
            EXPECT_EQ(message.priority, LOG_DAEMON | LOG_ERR);
            texts.push_back(message.text);
        }
        return texts;
    }

    SyslogCapture syslog;
};

} // namespace

TEST_F(JournalTest, theSenderStandsBeforeTheMessage) {
    // The fields that are there, by letters; a capital one is there without a value.
    const std::string letters = "hdipcn";
    const JournalFields all = {{"_HOSTNAME", "board"},        {"_KERNEL_DEVICE", "+usb:1-1"},
                               {"SYSLOG_IDENTIFIER", "sshd"}, {"SYSLOG_PID", "412"},
                               {"_COMM", "systemd"},          {"_PID", "1"}};
    std::istringstream table(
        "|;h|board ;d|+usb:1-1: ;hd|board +usb:1-1: ;hip|board sshd[412]: ;"
        "ncpidh|board +usb:1-1: sshd[412]: ;icn|systemd[1]: ;pcn|systemd[1]: ;ipc|sshd[412]: ;"
        "hic|board ;in|;cp|;pn|;HDip|sshd[412]: ;Ipcn|systemd[1]: ;iPcn|systemd[1]: ;Cn|;cN|");
    Cases cases;
    for (std::string line; std::getline(table, line, ';');) {
        const std::size_t bar = line.find('|');
        JournalFields fields = entry("3", "m");
        for (const char letter : line.substr(0, bar)) {
            const auto lower = static_cast<char>(std::tolower(letter));
            fields.push_back(all[letters.find(lower)]);
            if (letter != lower)
                fields.back().second.clear();
        }
        cases.emplace_back(fields, "<3>" + line.substr(bar + 1) + "m");
    }
    expectOutcomes(cases);
}

TEST_F(JournalTest, thePriorityDecidesAndHasToBeANumber) {
    const std::string none = "failed: Failed to read priority field: Operation not permitted";
    Cases cases = {{{{"MESSAGE", "m"}}, none}, {entry("", "m"), none}};
    const auto add = [&](const std::string& text, const std::string& outcome) {
        cases.push_back({entry(text, "m"), outcome});
    };
    for (const std::string& text : {"3"s, "+3"s, " \t3"s, "3\0x"s})
        add(text, "<3>m");
    for (const char* text : {"0", "4", "-1", "-2147483648"})
        add(text, "<"s + text + ">m");
    add("-99999999999999999999", "<-2147483648>m");
    for (const char* text : {"5", "4294967299", "99999999999999999999"})
        add(text, "passed over");
    for (const char* text : {"3 ", "err", "3x", "0x3", " ", "-"})
        add(text, "failed: Failed to parse priority field (\""s + text + "\")");
    cases.push_back({{{"PRIORITY", "7"}}, "passed over"});
    expectOutcomes(cases);
}

TEST_F(JournalTest, messagesEndAtAZeroByteOrTheBuffersEnd) {
    std::string noise;
    for (std::mt19937 random; noise.size() < 70000;)
        noise += static_cast<char>(1 + random() % 255);
    const std::string even(70000, 'e'); // the journal compresses it
    Cases cases = {{{{"PRIORITY", "3"}}, "failed"}, {entry("3", ""), "failed"}};
    for (const std::string& message : {"two\nlines\n"s, "one\0two"s, "\0none"s, noise, even,
                                       even.substr(0, 65535), even.substr(0, 65536)})
        cases.push_back(
            {entry("3", message),
             "<3>" + message.substr(0, std::min<std::size_t>(message.find('\0'), 65535))});
    expectOutcomes(cases);
}

TEST_F(JournalTest, eachReaderBeginsWithTheOldestEntryAndHasItsOwnLimit) {
    std::vector<JournalEntry> entries;
    for (int i = 0; i <= 7; ++i)
        entries.push_back({firstStamp, entry(std::to_string(i), "m")});
    writeJournal(entries);
    for (const int limit : {0, 3, 6, 7}) {
        qwk::Journal journal(limit);
        for (int i = 0; i <= 7; ++i)
            EXPECT_EQ(read(journal) != "passed over", i <= limit) << limit;
    }
}

TEST_F(JournalTest, failuresOfTheJournalAreReportedAndPass) {
    struct Failure {
        const char* call;
        std::vector<std::string> diagnostics; // of three reads
        std::string after;                    // what is read when the call works again
    };
    const Failure failures[] = {
        {"sd_journal_open", {"Failed to open journal: Bad message"}, "failed"},
        {"sd_journal_next", {3, "Failed to iterate to next entry: Bad message"}, "<3>after"},
        {"sd_journal_get_fd", {"Failed to wait for changes: Bad message"}, "<3>after"}};
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.call);
        SetUp();
        failing = failure.call;
        qwk::Journal journal(4);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(read(journal), "failed");
        failing = "";
        writeJournal({{firstStamp, entry("3", "after")}});
        EXPECT_EQ(read(journal), failure.after);
        EXPECT_EQ(said(), failure.diagnostics);
    }
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
        EXPECT_EQ(reading.wait_for(0s), std::future_status::timeout);
        if (i == 0)
            journald.emplace(); // only now is there a journal
        if (i == 2)
            journald->rotate(); // the next entry is in a new file
        journald->log(4, "sender", std::to_string(i));
        if (reading.wait_for(20s) != std::future_status::ready)
            qwk::stopRequest().request(SIGTERM); // the test has failed; let it end
        ASSERT_EQ(reading.get(), std::to_string(i));
    }
    // After another reader found nothing more, and before it watches for changes.
    beforeWatching = [&] {
        journald->log(3, "late", "hidden");
        journald->sync();
    };
    qwk::Journal another(4);
    for (const char* word : {"0", "1", "2", "3", "hidden"})
        EXPECT_EQ(readMessage(another), word);
    EXPECT_FALSE(beforeWatching);
    EXPECT_TRUE(said().empty());
}

// The last test, because the request stands for the rest of the process.
TEST_F(JournalTest, aStopEndsEveryWait) {
    const auto readInThread = [](qwk::Journal& journal) {
        return std::async(std::launch::async, [&] { return read(journal); });
    };
    qwk::Journal empty(4);
    auto waiting = readInThread(empty);
    EXPECT_TRUE(eventually(
        20s, [] { return looksInVain == 2; })); // before and behind the watch
    EXPECT_FALSE(eventually(100ms, [] { return looksInVain > 2; })) << "a busy loop";
    std::filesystem::remove_all("/run/log");
    qwk::Journal missing(4);
    auto waitingForFolder = readInThread(missing);
    EXPECT_TRUE(eventually(20s, [] { return looksInVain > 2; }));
    EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(waitingForFolder.wait_for(0s), std::future_status::timeout);
    qwk::stopRequest().request(SIGTERM);
    EXPECT_EQ(waiting.get(), "failed");
    EXPECT_EQ(waitingForFolder.get(), "failed");
    EXPECT_TRUE(said().empty());

    writeJournal({{firstStamp, entry("3", "kept")}});
    qwk::Journal filled(4);
    EXPECT_EQ(read(filled), "<3>kept");
    EXPECT_EQ(read(filled), "failed");
}
