// quillwick-tail: how it cuts text into entries, its messages for a log in any state, and that it
// prints every entry once while it and the daemon are stopped at any moment. QUILLWICK_TAIL_STOPS
// sets how often.

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "logger/logFileName.h"
#include "logger/sequenceNumber.h"
#include "support/daemon.h"
#include "support/random.h"
#include "tail/entrySplitter.h"

using namespace testSupport;
using namespace std::string_literals;

namespace {

constexpr char cursorPath[] = "/tmp/cursor";
constexpr std::size_t headLength = 35, longHead = 232;

std::string line(std::uint32_t number, const std::string& message) {
    return qwk::sequenceTag(number) + " 2026-01-31 12:00:00.250 " + message + '\n';
}
std::string lines(std::uint32_t from, std::uint32_t to) {
    std::string all;
    for (std::uint32_t number = from; number != to + 1; ++number)
        all += line(number, "entry " + std::to_string(number));
    return all;
}

// The entries of printed or stored text: continued lines of a message begin with a blank.
std::vector<std::string> entriesOf(const std::string& text) {
    std::vector<std::string> entries;
    std::istringstream stream(text);
    for (std::string next; std::getline(stream, next);)
        if (next[0] == ' ')
            entries.back() += '\n' + next;
        else if (next[0] == '[')
            entries.push_back(next);
    for (std::string& entry : entries)
        entry.resize(std::min(entry.size(), headLength + longHead)); // as long as both forms agree
    return entries;
}

// The log files of a daemon that does not run, read by quillwick-tail.
class TailTest : public testing::Test {
protected:
    TailTest() {
        std::filesystem::remove_all("/var/logperm");
        std::filesystem::create_directory("/var/logperm");
        std::filesystem::remove(cursorPath);
    }
    static RunResult tail(std::vector<std::string> options = {"--events"}) {
        options.insert(options.begin(), {"--cursor-file", cursorPath});
        return run(buildPath("quillwick-tail"), options);
    }
    static void store(const std::string& text, int index = 0) {
        writeFile(qwk::logFileName(index), text);
    }
};

} // namespace

TEST(EntrySplitterTest, cutsTextIntoWholeEntries) {
    const std::string quote = line(7, "quoted");
    const std::string later = "[00000007] 2026-01-31 12:00:00.251 b\n";
    const std::string zeros(40, '\0');
    const struct {
        const char* name;
        std::string text;
        std::vector<std::string> entries; // without their newline
    } cases[] = {
        {"a fragment goes",
         "of a line\n" + line(1, "a") + line(2, "b"),
         {line(1, "a"), line(2, "b")}},
        {"lines of a message",
         line(1, "a\n[b]\n\n") + line(2, ""),
         {line(1, "a\n[b]"), line(2, "")}},
        {"no end yet", line(1, "a") + "[00000002] 2026-01-31 12:00:00.250 b", {line(1, "a")}},
        {"a torn head", line(1, "a") + "[00000002] 2026-01", {line(1, "a")}},
        {"a torn head, ended later",
         line(1, "a") + "[0000\n" + line(2, "b"),
         {line(1, "a"), line(2, "b")}},
        {"a torn line of the same entry", line(1, "a\nb") + "[0000000", {line(1, "a\nb")}},
        {"unwritten blocks",
         line(1, "a") + zeros + '\n' + line(2, zeros) + line(2, "b"),
         {line(1, "a"), line(2, "b")}},
        {"a quoted line",
         line(9, "a\n" + quote) + line(10, "b"),
         {line(9, "a\n" + quote), line(10, "b")}},
        {"a quoted line at the end", line(9, "a\n" + quote), {line(9, "a\n" + quote)}},
        {"numbers that went back",
         line(900, "a") + quote + line(8, "b"),
         {line(900, "a"), quote, line(8, "b")}},
        {"a chip with lower numbers", line(9, "a") + later, {line(9, "a"), later}},
        {"a repeated flush",
         lines(6, 7) + lines(6, 8),
         {line(6, "entry 6"), line(7, "entry 7"), line(6, "entry 6"), line(7, "entry 7"),
          line(8, "entry 8")}},
        {"numbers wrap",
         line(UINT32_MAX, "a") + line(0, "b"),
         {line(UINT32_MAX, "a"), line(0, "b")}},
    };
    for (const auto& [name, text, wanted] : cases)
        for (const std::size_t piece : {text.size(), std::size_t{1}}) {
            SCOPED_TRACE(name + " in pieces of "s + std::to_string(piece));
            qwk::tail::EntrySplitter splitter(qwk::tail::EntrySplitter::Source::file);
            qwk::tail::Entry entry;
            std::vector<std::string> entries;
            for (std::size_t at = 0; at < text.size(); at += piece) {
                splitter.add(text.data() + at, piece);
                while (splitter.next(entry, at + piece == text.size()))
                    entries.push_back(entry.text);
            }
            std::vector<std::string> stripped;
            for (std::string one : wanted)
                stripped.push_back(one.erase(one.find_last_not_of('\n') + 1));
            EXPECT_EQ(entries, stripped);
        }
}

TEST_F(TailTest, tellsOnceWhatIsWrongWithTheNumbers) {
    const std::string torn = line(13, "entry 13").substr(0, 40) + '\n';
    const std::string quote = "[0000000d] 2026-01-31 12:00:00.250 quotes\n" + lines(9, 9);
    const struct {
        const char* name;
        std::string first, then; // the log file at the first start and at the second
        std::string printed, told;
    } cases[] = {
        {"nothing new", lines(1, 9), lines(1, 9), "", ""},
        {"more", lines(1, 9), lines(1, 12), lines(10, 12), ""},
        {"a gap", lines(1, 9), lines(1, 9) + lines(12, 13), lines(12, 13),
         R"({"event":"gap","from":"0000000a","to":"0000000b"})"},
        {"rolled out", lines(1, 9), lines(20, 22), lines(20, 22),
         R"({"event":"cursor-too-old","from":"0000000a","to":"00000013"})"},
        {"a new chip", lines(0x500, 0x509), lines(0x500, 0x509) + lines(0, 3), lines(0, 3),
         R"({"event":"went-back","last":"00000509","next":"00000000"})"},
        {"used again", lines(1, 9), lines(1, 9) + line(9, "other"), line(9, "other"),
         R"({"event":"went-back","last":"00000009","next":"00000009"})"},
        {"flushed twice", lines(1, 9), lines(1, 12) + lines(10, 13), lines(10, 13),
         R"({"event":"repeated","from":"0000000a","to":"0000000c"})"},
        {"torn and flushed again", lines(1, 9), lines(1, 12) + torn + lines(10, 14), lines(10, 14),
         R"({"event":"repeated","from":"0000000a","to":"0000000c"})"},
        {"torn in the first line", lines(1, 12), lines(1, 12) + torn + lines(13, 14), lines(13, 14),
         ""},
        {"numbers wrap", lines(UINT32_MAX - 1, UINT32_MAX), lines(UINT32_MAX - 1, 1), lines(0, 1),
         ""},
        {"the last entry in a message", lines(1, 9), lines(1, 12) + quote, lines(10, 12) + quote,
         ""},
        {"not written yet", lines(1, 9), lines(1, 10) + "[0000000b] 2026-01-31 12:00",
         lines(10, 10), ""},
    };
    const std::string resumed = R"({"event":"resumed","after":)";
    for (const auto& [name, first, then, printed, told] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove(cursorPath);
        store(first);
        EXPECT_EQ(tail().output, first);
        store(then);
        const std::string output = tail().output;
        ASSERT_EQ(output.find(resumed), 0U) << output;
        EXPECT_EQ(output.substr(output.find('\n') + 1),
                  told + (told.empty() ? "" : "\n") + printed);
    }
}

TEST_F(TailTest, aRollThatWasCutOffHidesNothing) {
    store(lines(1, 9), 1); // and no log file
    EXPECT_EQ(tail().output, lines(1, 9));
}

TEST_F(TailTest, recordsWhatTheOutputHasTakenOnly) {
    const std::string all = lines(0, 400); // more than a pipe holds
    store(all);
    const std::string command = buildPath("quillwick-tail") + " --cursor-file " + cursorPath;
    const auto shell = [&](const std::string& rest) {
        return run("/bin/sh", {"-c", command + rest}).output;
    };
    EXPECT_NE(shell(" >/dev/full").find("Cannot write the output (No space"), std::string::npos);
    EXPECT_NE(shell(" | sleep 0.1").find("Cannot write the output (Broken pipe)"),
              std::string::npos);
    EXPECT_EQ(shell(" | cat"), all);
    EXPECT_EQ(shell(" 2>&1 | cat"), "quillwick-tail: Going on after [00000190].\n");
    // Where to begin without a cursor; wrong use.
    std::filesystem::remove(cursorPath);
    EXPECT_EQ(shell(" --since 18f"), lines(399, 400));
    EXPECT_EQ(tail({"--since", "x"}).status, 2);
    writeFile(cursorPath, "anything");
    EXPECT_EQ(tail().status, 2);
}

namespace {

// A number of stops: of reader and daemon, ended in order or killed.
class StopTest : public System {
protected:
    StopTest() {
        writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\nlog4cplus.logcount=1000\n");
        std::filesystem::remove(cursorPath);
    }
    void logSome(std::uint32_t count) {
        for (; count > 0; --count) {
            const std::uint32_t size =
                random.oneIn(20) ? 300 + random.upTo(3000) : random.upTo(240);
            journald.log(3, "test",
                         qwk::sequenceTag(++sent) + (random.oneIn(10) ? "\n  more" : "") + ' ' +
                             std::string(size, 'x'));
        }
    }
    void startReader() {
        reader = std::make_unique<ChildProcess>(
            buildPath("quillwick-tail"),
            std::vector<std::string>{"--events", "--follow", "--cursor-file", cursorPath});
    }
    // Compares what the reader has printed with what it recorded before and after.
    void stopReader(int signal) {
        reader->kill(signal);
        const std::optional<int> ending = reader->wait(30s);
        EXPECT_TRUE(ending == -signal ||
                    (ending == 0 && signal != SIGKILL)); // or before it handles any
        const std::string output = reader->output();
        EXPECT_EQ(output.find("gap"), std::string::npos);
        EXPECT_EQ(output.find("failure"), std::string::npos);
        printed.push_back(entriesOf(output));
        recorded.push_back(lastRecorded());
    }
    // The number in the last but one line of the cursor file, as in the log.
    static std::string lastRecorded() {
        if (!std::filesystem::exists(cursorPath))
            return "";
        const std::string cursor = readFile(cursorPath);
        const std::size_t at = cursor.rfind("entry ");
        return at == std::string::npos ? "" : '[' + cursor.substr(at + 6, 8) + ']';
    }
    // Every start reads the journal of the boot again, so the entries read so far are removed.
    void restartDaemon() {
        journald.rotate();
        run("/usr/bin/journalctl", {"--vacuum-files=1"});
        daemon = std::make_unique<Daemon>();
    }
    // Stops the reader, the daemon or both at once.
    void stopAny() {
        const int signal = random.oneIn(2) ? SIGKILL : SIGTERM;
        const bool both = random.oneIn(5);
        const bool ofDaemon = both || random.oneIn(2);
        if (ofDaemon)
            EXPECT_EQ(daemon->end(signal), signal == SIGKILL ? -SIGKILL : 0);
        if (!ofDaemon || both)
            stopReader(signal);
        if (ofDaemon)
            restartDaemon();
        ++stopped[(ofDaemon ? both ? "both " : "daemon " : "reader ") +
                  (signal == SIGKILL ? "KILL"s : "TERM"s)];
    }
    // Each start of the reader goes on after the entry that was recorded. An entry whose daemon was
    // killed before the chip had it may be printed, and is in no file.
    void expectAllPrintedOnce() {
        std::string log;
        for (int index = 0; std::filesystem::exists(qwk::logFileName(index)); ++index)
            log.insert(0, readFile(qwk::logFileName(index)));
        std::vector<std::string> stored; // each once
        std::map<std::string, std::size_t> place;
        for (const std::string& entry : entriesOf(log))
            if (place.emplace(entry, stored.size()).second)
                stored.push_back(entry);
        std::size_t next = 0, repeated = 0, onlyPrinted = 0;
        for (std::size_t start = 0; start < printed.size(); ++start) {
            bool first = true;
            for (const std::string& entry : printed[start]) {
                const auto found = place.find(entry);
                if (found == place.end()) {
                    ++onlyPrinted;
                    continue;
                }
                if (std::exchange(first, false) && found->second < next) {
                    repeated += next - found->second;
                    next = found->second;
                    EXPECT_EQ(next == 0 ? "" : stored[next - 1].substr(0, 10), recorded[start - 1]);
                }
                EXPECT_EQ(found->second, next++) << "lost or again: " << entry;
            }
        }
        EXPECT_EQ(next, stored.size());
        EXPECT_LE(onlyPrinted, stopped["daemon KILL"] + stopped["both KILL"]);
        for (const auto& [what, times] : stopped)
            std::printf("%s: %zu\n", what.c_str(), times);
        std::printf("%zu entries, %zu printed again, %zu that the chip never had\n", stored.size(),
                    repeated, onlyPrinted);
    }

    Random random;
    std::unique_ptr<Daemon> daemon;
    std::unique_ptr<ChildProcess> reader;
    std::uint32_t sent = 0;
    std::map<std::string, std::size_t> stopped;    // how often, by what and how
    std::vector<std::vector<std::string>> printed; // by each start of the reader
    std::vector<std::string> recorded;             // the last entry's number, after each
};

} // namespace

TEST_F(StopTest, everyEntryIsPrintedOnceWhateverIsStoppedAndWhen) {
    const char* text = std::getenv("QUILLWICK_TAIL_STOPS");
    const std::uint32_t stops = text != nullptr ? static_cast<std::uint32_t>(std::atoi(text)) : 30;
    std::uint32_t bursts = 0;
    daemon = std::make_unique<Daemon>();
    startReader();
    for (std::uint32_t stop = 0; stop < stops; ++stop) {
        logSome(random.upTo(60));
        std::this_thread::sleep_for(std::chrono::microseconds(random.upTo(60000)));
        stopAny();
        if (!reader->wait(0ms))
            continue;
        if (bursts * 40 < stop) { // the log rolls meanwhile
            ++bursts;
            logSome(2800);
            ASSERT_TRUE(arrives(' ' + qwk::sequenceTag(sent)));
        }
        startReader();
    }
    journald.log(3, "test", "the last one");
    ASSERT_TRUE(arrives("the last one"));
    ASSERT_TRUE(reader->waitForOutput("the last one", 30s)) << reader->output();
    stopReader(SIGTERM);
    client({"-f"});
    EXPECT_EQ(daemon->end(), 0);
    expectAllPrintedOnce();
    EXPECT_TRUE(std::filesystem::exists(qwk::logFileName(static_cast<int>(stops) / 50)));
}

TEST_F(StopTest, followsLiveThroughLongMessagesFlushesAndClears) {
    daemon = std::make_unique<Daemon>();
    startReader();
    std::size_t at = 0;
    for (int step = 0; step < 25; ++step) {
        const std::string tag = '<' + std::to_string(step) + '>';
        const std::uint32_t size = random.upTo(random.oneIn(3) ? 60000 : 600);
        journald.log(3, "test", tag + std::string(random.oneIn(3) ? size : 0, 'x'));
        // An entry that was cleared before it was printed cannot come.
        ASSERT_TRUE(reader->waitForOutput(tag, 10s)) << reader->output();
        const std::string output = reader->output();
        EXPECT_GE(output.find(tag), at) << tag << " is not in its place";
        at = output.find(tag);
        const std::uint32_t what = random.upTo(9);
        if (what < 3)
            client({what == 0 ? "--clear" : "-f"});
    }
    stopReader(SIGTERM); // nothing was missing
    for (const std::string& entry : printed[0])
        EXPECT_EQ(std::count(printed[0].begin(), printed[0].end(), entry), 1) << entry;
    EXPECT_EQ(daemon->end(), 0);
}

TEST_F(StopTest, aTornLineIsPrintedWholeFromTheChip) {
    daemon = std::make_unique<Daemon>();
    log({"one", "two"});
    ASSERT_TRUE(arrives("two"));
    const std::string text = receiveAll(request("quillwick -g 10000"));
    EXPECT_EQ(daemon->end(), 0);
    // A power cut in the flush: the chip has both entries, the file one and a half.
    writeFile(qwk::logFilePath, text.substr(0, text.size() - 2));
    startReader();
    ASSERT_TRUE(reader->waitForOutput("one\n", 10s));
    restartDaemon(); // which ends the torn line
    log({"three"});
    ASSERT_TRUE(reader->waitForOutput("three", 30s)) << reader->output();
    EXPECT_EQ(reader->output().rfind(text.substr(0, text.size() - 1) + '\n', 0), 0U)
        << reader->output();
    EXPECT_EQ(reader->output().find("tw\n"), std::string::npos);
}
