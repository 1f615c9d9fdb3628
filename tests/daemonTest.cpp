// The executable from outside: its modes, the way of an entry through a real journal and a stood-in
// chip to the log file, restarts and what is missing.

#include <algorithm>
#include <sstream>

#include "logger/sequenceNumber.h"
#include "support/daemon.h"

using namespace testSupport;
using namespace std::string_literals;

namespace {

class ClientTest : public testing::Test {
protected:
    void listenAsDaemon() {
        unlink(qwk::controlSocketPath);
        const sockaddr_un address = qwk::controlSocketAddress();
        ASSERT_EQ(bind(listening.get(), qwk::asSocketAddress(address), sizeof address), 0);
        ASSERT_EQ(listen(listening.get(), 5), 0);
    }
    const Descriptor listening{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

class DaemonTest : public System {
protected:
    // The daemon under a tracer of its system calls; ready when this returns.
    std::unique_ptr<ChildProcess> traceDaemon(const std::string& calls,
                                              std::vector<std::string> options) {
        // The leak check needs the tracer's place.
        options.insert(options.end(), {"-f", "-y", "-e", "trace=" + calls, "-o", tracePath, "-E",
                                       "ASAN_OPTIONS=detect_leaks=0", buildPath("quillwick")});
        auto process = std::make_unique<ChildProcess>("/usr/bin/strace", options);
        EXPECT_TRUE(eventually(30s, [] { return connectToDaemon().isOpen(); }));
        return process;
    }
    static std::string endTraced(ChildProcess& tracer) {
        const std::string tracerId = std::to_string(tracer.pid());
        ::kill(std::stoi(readFile("/proc/" + tracerId + "/task/" + tracerId + "/children")),
               SIGTERM);
        EXPECT_EQ(tracer.wait(30s), 0);
        return readFile(tracePath);
    }
    static constexpr const char* tracePath = "/tmp/trace";
};

// The messages of the lines numbered from 0 on, up to a number that is missing.
std::vector<std::string> messagesOf(const std::string& log) {
    std::vector<std::string> messages;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);)
        if (line.find(qwk::sequenceTag(static_cast<std::uint32_t>(messages.size()))) == 0)
            messages.push_back(line.substr(line.find("]: ") + 3));
    return messages;
}

} // namespace

TEST_F(ClientTest, printsItsUsageWithoutADaemon) {
    const std::string usage = client({"-h"});
    EXPECT_EQ(usage.find("Usage: quillwick\n"), 0U);
    EXPECT_EQ(std::count(usage.begin(), usage.end(), '\n'), 15);
}

TEST_F(ClientTest, saysWhenNobodyListens) {
    SyslogCapture syslog;
    const RunResult result = run(buildPath("quillwick"), {"-h", "-p"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "Cannot connect to server.\n");
    EXPECT_TRUE(
        syslog.waitFor(R"(Cannot connect to "/tmp/quillwick" (No such file or directory).)", 10s));
}

TEST_F(ClientTest, printsEachPieceUpToItsFirstZeroByte) {
    const std::string piece(255, 'x'); // as much as is received at once
    const std::pair<std::string, std::string> cases[] = {{"", ""},
                                                         {piece + "def", piece + "def"},
                                                         {"abc\0"s + piece, "abcxxxx"},
                                                         {"abc\0def\0"s, "abc\n"},
                                                         {"\0"s, "\n"},
                                                         {piece + '\0', piece + "\n"}};
    listenAsDaemon();
    for (const auto& [answer, printed] : cases) {
        ChildProcess process(buildPath("quillwick"), {"-g", "1000"});
        {
            const Descriptor connection(accept(listening.get(), nullptr, nullptr));
            char request[1024];
            const ssize_t length = recv(connection.get(), request, sizeof request, 0);
            ASSERT_GT(length, 0);
            EXPECT_EQ(std::string(request, static_cast<std::size_t>(length)),
                      buildPath("quillwick") + " -g 1000" + '\0');
            send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        EXPECT_EQ(process.wait(10s), 0);
        EXPECT_EQ(process.output(), printed);
    }
}

TEST_F(ClientTest, endsWhenNobodyReadsItsOutput) {
    listenAsDaemon(); // and never answers, like a quiet log
    ChildProcess pipeline("/bin/sh", {"-c", buildPath("quillwick") + " -l -g 0 | true"});
    EXPECT_EQ(pipeline.wait(10s), 0);
}

TEST_F(DaemonTest, killedDaemonsLoseNothingAndNumbersGoOn) {
    std::vector<std::string> journal, expected;
    for (int round = 0; round < 4; ++round) {
        Daemon daemon;
        // Every start reads the boot's entries again, and they get new numbers.
        expected.insert(expected.end(), journal.begin(), journal.end());
        for (int i = 0; i < 30; ++i) {
            journal.push_back(std::to_string(round) + '.' + std::to_string(i));
            expected.push_back(journal.back());
            journald->log(3, "test", journal.back());
        }
        ASSERT_TRUE(eventually(30s, [&] {
            return messagesOf(client({"-g", "1000000"})) == expected;
        }));
        EXPECT_EQ(daemon.end(SIGKILL), -SIGKILL);
    }
}

TEST_F(DaemonTest, rotationVacuumAndBurstsLoseNothing) {
    Daemon daemon;
    std::vector<std::string> texts;
    const auto logMore = [&](int count) {
        for (; count > 0; --count) {
            texts.push_back("number " + std::to_string(texts.size()));
            journald->log(3, "test", texts.back());
        }
    };
    journald->log(5, "test", "a notice is above the level");
    for (int round = 0; round < 30; ++round) {
        logMore(100);
        journald->rotate();
        if (round % 5 == 4)
            ASSERT_TRUE(arrives(texts.back()));
        run("/usr/bin/journalctl", {"--vacuum-files=8"}); // of files that were read long ago
    }
    logMore(20000);
    ASSERT_TRUE(arrives(texts.back()));
    EXPECT_EQ(logFile().find(texts.back()), std::string::npos); // still in the chip
    client({"-f"});
    EXPECT_EQ(messagesOf(logFile()), texts);
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(DaemonTest, withoutInotifyEntriesStillArriveAndTheProcessorRests) {
    const auto tracing = traceDaemon("inotify_init1", {"--inject=inotify_init1:error=EMFILE"});
    for (int i = 0; i < 10; ++i) {
        log({"entry " + std::to_string(i)});
        EXPECT_TRUE(arrives("entry " + std::to_string(i)));
    }
    const auto messages = syslog.take();
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const SyslogMessage& message) {
                                return message.text ==
                                       "Failed to wait for changes: Too many open files";
                            }),
              1); // each would be an entry itself
    const std::string trace = endTraced(*tracing);
    const auto tries = std::count(trace.begin(), trace.end(), '\n');
    EXPECT_GT(tries, 10);
    EXPECT_LT(tries, 1000); // one in 100 ms
}

TEST_F(DaemonTest, linesAreOnStableStorageBeforeTheChipLetsThemGo) {
    writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\n");
    writeFile(qwk::logFilePath, std::string(524200, 'x') + '\n'); // rolls with the second line
    const auto tracing = traceDaemon("write,fsync", {});
    log({"one", "two", "three"});
    ASSERT_TRUE(arrives("three"));
    EXPECT_EQ(client({"-f"}), "");
    EXPECT_EQ(client({"-f"}), ""); // writes nothing and syncs nothing
    log({"four"});
    ASSERT_TRUE(arrives("four"));
    EXPECT_EQ(client({"-f"}), "");
    std::string order; // l: a line, s: a sync that succeeded, H: a header copy
    const std::string calls = endTraced(*tracing);
    std::istringstream trace(calls);
    for (std::string line; std::getline(trace, line);)
        if (line.find("fsync(") != std::string::npos)
            order += line.find("= 0") != std::string::npos ? 's' : '?';
        else if (line.find("hdr1") != std::string::npos)
            order += 'H';
        else if (line.find(", \"[0000") != std::string::npos)
            order += 'l';
    EXPECT_EQ(order, "HHHHHH"
                     "lllsssHH"
                     "HH"
                     "lsHH");
    EXPECT_NE(calls.find("larkspur.log.1>"), std::string::npos);
}

TEST_F(DaemonTest, runsOnlyOnce) {
    Daemon daemon;
    EXPECT_EQ(client({}), "Server already running.\n");
    // Neither a client nor a program of a longer name is a daemon; stopped, they stay.
    ASSERT_EQ(symlink("/usr/bin/yes", "/tmp/quillwick2"), 0);
    ChildProcess listener(buildPath("quillwick"), {"-l", "-g", "0"});
    ChildProcess other("/tmp/quillwick2", {});
    listener.kill(SIGSTOP);
    other.kill(SIGSTOP);
    EXPECT_EQ(daemon.end(), 0);
    Daemon second;
    EXPECT_EQ(second.end(), 0);
}

TEST_F(DaemonTest, aMissingChipIsWaitedForAndItsEntryKept) {
    Daemon daemon;
    // Of two times that it is missing the first is reported, after 10 s.
    for (const int expected : {1, 0}) {
        device.reset();
        log({"kept"});
        int attempts = 0, warnings = 0;
        EXPECT_TRUE(eventually(40s, [&] {
            for (const SyslogMessage& message : syslog.take())
                if (message.text == "Openening i2c bus for EEPROM timed out.")
                    EXPECT_EQ(attempts, 101 * ++warnings);
                else
                    attempts += message.text == "Error opening I2C Device: /dev/i2c-2" ? 1 : 0;
            return attempts > 110;
        }));
        EXPECT_EQ(warnings, expected);
        if (warnings > 0) {
            device = std::make_unique<framEmulator::FramDevice>("/dev/i2c-2", chip);
            EXPECT_TRUE(arrives("kept"));
        }
    }
    EXPECT_EQ(receiveAll(request("quillwick -f")), "Cannot access EEPROM.\0"s);
    EXPECT_EQ(daemon.end(), 0); // out of the wait without limit
}
