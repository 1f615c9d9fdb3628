// The executable from outside: its modes, the way of an entry through a real journal and a stood-in
// chip to the log file, restarts, signals and what is missing.

#include <sstream>
#include <sys/ioctl.h>

#include "support/daemon.h"
#include "support/syslogCapture.h"

using namespace testSupport;

namespace {

class ClientTest : public testing::Test {
protected:
    // Serves one connection with these pieces, each sent when the one before was taken, and
    // returns the request that came.
    std::string serveOnce(const std::vector<std::string>& pieces) {
        const Descriptor connection(accept(listening_.get(), nullptr, nullptr));
        char request[1024];
        const ssize_t got = recv(connection.get(), request, sizeof request, 0);
        for (const std::string& piece : pieces) {
            send(connection.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
            EXPECT_TRUE(eventually(10s, [&] { return unread(connection) == 0; }));
        }
        return {request, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }
    void listenAsDaemon() {
        unlink(qwk::controlSocketPath);
        const sockaddr_un address = qwk::controlSocketAddress();
        listening_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(bind(listening_.get(), qwk::asSocketAddress(address), sizeof address), 0);
        ASSERT_EQ(listen(listening_.get(), 5), 0);
    }

private:
    static int unread(const Descriptor& connection) {
        int bytes = -1;
        return ioctl(connection.get(), TIOCOUTQ, &bytes) == 0 ? bytes : -1;
    }
    Descriptor listening_;
};

class DaemonTest : public System {
protected:
    // The daemon under a tracer of its system calls; ready when this returns.
    std::unique_ptr<ChildProcess> traceDaemon(const std::string& calls,
                                              std::vector<std::string> options) {
        options.insert(options.end(), {"-f", "-y", "-e", "trace=" + calls, "-o", tracePath,
                                       buildPath("quillwick")});
        // The leak check needs the tracer's place.
        auto process = std::make_unique<ChildProcess>(
            "/usr/bin/strace", options, ChildOptions{{}, {"ASAN_OPTIONS=detect_leaks=0"}, false});
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

// The messages of the lines "[number] date time host test[pid]: message", in order. What else
// stands in the log begins no such line.
std::vector<std::string> messagesOf(const std::string& log, std::vector<unsigned long>& numbers) {
    std::vector<std::string> messages;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number, date, time, host, sender, message;
        words >> number >> date >> time >> host >> sender >> std::ws;
        if (sender.compare(0, 5, "test[") != 0 || number.size() != 10 || time.size() != 12)
            continue;
        std::getline(words, message, '\0');
        numbers.push_back(std::stoul(number.substr(1), nullptr, 16));
        messages.push_back(message);
    }
    return messages;
}

} // namespace

TEST_F(ClientTest, printsItsUsageOnly) {
    EXPECT_EQ(client({"-h"}), R"(Usage: quillwick
       quillwick -c
       quillwick -p
       quillwick -f
       quillwick [-l] -g maxsize

       No arguments: Read from systemd journal and write to log files
                     (daemon mode).
       -h            Print this message to stdout.
       --clear       Clear cache.
       -p            Print hex dump of cache to stdout.
       -f            Flush cache to log file.
       -l            Stay connected and listen for new log messages.
       -g maxsize    Print recent logs to stdout. Size is limited to
                     maxsize bytes.
)");
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
    using namespace std::string_literals;
    struct Case {
        std::vector<std::string> pieces;
        std::string printed;
    };
    const Case cases[] = {
        {{}, ""},
        {{"abc", "def"}, "abcdef"},
        {{"abc\0"s, "def\0"s}, "abc\ndef\n"},
        {{"abc\0def"s, "ghi"}, "abcghi"},
        {{"abc\0def\0"s}, "abc\n"},
        {{"\0"s}, "\n"},
        {{std::string(255, 'x') + '\0'}, std::string(255, 'x') + "\n"},
    };
    listenAsDaemon();
    for (const Case& one : cases) {
        ChildProcess process(buildPath("quillwick"), {"-g", "1000"}, {{}, {}, true});
        EXPECT_EQ(serveOnce(one.pieces), buildPath("quillwick") + " -g 1000" + '\0');
        EXPECT_EQ(process.wait(10s), 0);
        EXPECT_EQ(process.output(), one.printed);
    }
}

TEST_F(ClientTest, endsWhenNobodyReadsItsOutput) {
    listenAsDaemon(); // and never answers, like a quiet log
    ChildProcess pipeline("/bin/sh", {"-c", buildPath("quillwick") + " -l -g 0 | true"});
    EXPECT_EQ(pipeline.wait(10s), 0);
}

TEST_F(DaemonTest, entriesReachTheLogFileInBatches) {
    Daemon daemon;
    std::vector<std::string> texts;
    for (int i = 0; i < 200; ++i)
        texts.push_back("entry " + std::to_string(i) + ' ' + std::string(60, '.'));
    journald->log(5, "test", "a notice is above the level");
    log(texts);
    ASSERT_TRUE(arrives("entry 199 "));
    EXPECT_FALSE(logFile().empty()); // the chip filled up and was flushed
    EXPECT_LT(logFile().find("entry 99 "), std::string::npos);
    EXPECT_EQ(logFile().find("entry 199 "), std::string::npos); // still in the chip
    EXPECT_EQ(client({"-f"}), "");
    std::vector<unsigned long> numbers;
    EXPECT_EQ(messagesOf(logFile(), numbers), texts);
    for (std::size_t i = 0; i < numbers.size(); ++i)
        EXPECT_EQ(numbers[i], i);
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(DaemonTest, killedDaemonsLoseNothingAndNumbersGoOn) {
    std::vector<std::string> journal;
    std::vector<std::string> expected;
    for (int round = 0; round < 5; ++round) {
        Daemon daemon;
        // Every start reads the boot's entries again, and they get new numbers.
        expected.insert(expected.end(), journal.begin(), journal.end());
        for (int i = 0; i < 20; ++i) {
            journal.push_back(std::to_string(round) + '.' + std::to_string(i));
            expected.push_back(journal.back());
            log({journal.back()});
        }
        std::vector<unsigned long> numbers;
        ASSERT_TRUE(eventually(30s, [&] {
            numbers.clear();
            return messagesOf(client({"-g", "1000000"}), numbers) == expected;
        }));
        for (std::size_t i = 0; i < numbers.size(); ++i)
            ASSERT_EQ(numbers[i], i);
        EXPECT_EQ(daemon.end(SIGKILL), -SIGKILL);
    }
}

TEST_F(DaemonTest, rotationVacuumAndBurstsLoseNothing) {
    Daemon daemon;
    std::vector<std::string> texts;
    const auto logMore = [&](std::size_t count) {
        const std::size_t from = texts.size();
        for (std::size_t i = 0; i < count; ++i)
            texts.push_back("number " + std::to_string(texts.size()));
        log({texts.begin() + static_cast<std::ptrdiff_t>(from), texts.end()});
    };
    for (int round = 0; round < 30; ++round) {
        logMore(100);
        journald->rotate();
        if (round % 5 == 4)
            ASSERT_TRUE(arrives(texts.back()));
        run("/usr/bin/journalctl", {"--vacuum-files=8"}); // of files that were read long ago
    }
    logMore(20000);
    ASSERT_TRUE(arrives(texts.back()));
    client({"-f"});
    std::vector<unsigned long> numbers;
    EXPECT_EQ(messagesOf(logFile(), numbers), texts);
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(DaemonTest, withoutInotifyEntriesStillArriveAndTheProcessorRests) {
    const auto tracing = traceDaemon("inotify_init1", {"--inject=inotify_init1:error=EMFILE"});
    const std::string failure = "Failed to wait for changes: Too many open files";
    ASSERT_TRUE(syslog.waitFor(failure, 20s));
    for (int i = 0; i < 10; ++i) {
        log({"entry " + std::to_string(i)});
        EXPECT_TRUE(arrives("entry " + std::to_string(i)));
    }
    const auto texts = syslog.take();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [&](const SyslogMessage& message) { return message.text == failure; }),
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
    // l: a line, s: a sync that succeeded, H: a header copy.
    std::string order;
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
                     "lll"
                     "sss"
                     "HH"
                     "HH"
                     "l"
                     "s"
                     "HH");
    EXPECT_NE(calls.find("larkspur.log.1>"), std::string::npos);
}

TEST_F(DaemonTest, runsOnlyOnce) {
    Daemon daemon;
    EXPECT_EQ(client({}), "Server already running.\n");
    ChildProcess listener(buildPath("quillwick"), {"-l", "-g", "0"});
    EXPECT_EQ(daemon.end(), 0);
    // Neither a client nor a program of a longer name is a daemon.
    ASSERT_EQ(symlink("/bin/cat", "/tmp/quillwick2"), 0);
    ChildProcess other("/tmp/quillwick2", {});
    Daemon second;
    EXPECT_EQ(second.end(), 0);
}

TEST_F(DaemonTest, everyHandledSignalEndsItCleanly) {
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM}) {
        Daemon daemon;
        EXPECT_EQ(access(qwk::controlSocketPath, F_OK), 0);
        EXPECT_EQ(daemon.end(signal), 0) << signal;
        EXPECT_NE(access(qwk::controlSocketPath, F_OK), 0) << signal;
    }
}

TEST_F(DaemonTest, aStopIsSeenInEveryWait) {
    const auto expectPromptEnd = [](Daemon& daemon) {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(daemon.end(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    };
    device.reset();
    log({"waits for a chip"});
    Daemon daemon;
    ASSERT_TRUE(syslog.waitFor("Error opening I2C Device", 20s));
    expectPromptEnd(daemon);
    journald.reset();
    std::filesystem::remove_all("/run/log/journal");
    Daemon withoutJournal;
    expectPromptEnd(withoutJournal);
}

TEST_F(DaemonTest, aJournalThatAppearsLateIsRead) {
    journald.reset();
    std::filesystem::remove_all("/run/log");
    Daemon daemon;
    journald = std::make_unique<Journald>();
    log({"late"});
    EXPECT_TRUE(arrives("late"));
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(DaemonTest, aMissingChipIsWaitedForAndItsEntryKept) {
    device.reset();
    log({"kept"});
    Daemon daemon;
    const std::string warning = "Openening i2c bus for EEPROM timed out.";
    ASSERT_TRUE(syslog.waitFor(warning, 20s));
    int attempts = 0;
    for (const SyslogMessage& message : syslog.take()) {
        if (message.text == warning)
            break;
        attempts += message.text == "Error opening I2C Device: /dev/i2c-2" ? 1 : 0;
    }
    EXPECT_EQ(attempts, 101);
    EXPECT_EQ(receiveAll(request("quillwick -f")), std::string("Cannot access EEPROM.") + '\0');
    device = std::make_unique<framEmulator::FramDevice>("/dev/i2c-2", chip);
    EXPECT_TRUE(arrives("kept"));
    device.reset();
    log({"kept, too"});
    ASSERT_TRUE(syslog.waitFor("Error opening I2C Device", 20s));
    device = std::make_unique<framEmulator::FramDevice>("/dev/i2c-2", chip);
    EXPECT_TRUE(arrives("kept, too"));
    for (const SyslogMessage& message : syslog.take())
        EXPECT_NE(message.text, warning); // it is given once
    device.reset();
    log({"waits"});
    ASSERT_TRUE(syslog.waitFor("Error opening I2C Device", 20s));
    EXPECT_EQ(daemon.end(), 0); // out of the wait without limit
}
