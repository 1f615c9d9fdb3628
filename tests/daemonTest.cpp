// The executable from outside: its modes, the path of an entry through a real journal and an
// emulated chip to the log file, restarts and missing parts of the board.

#include <algorithm>
#include <fcntl.h>
#include <future>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main/client.h"
#include "support/daemon.h"

using namespace testSupport;
using namespace std::string_literals;

namespace {

const std::string quillwick = buildPath("quillwick");

// The client, with a test in the daemon's place.
class ClientTest : public testing::Test {
protected:
    void listenAsDaemon() {
        const sockaddr_un address = qwk::controlSocketAddress();
        ASSERT_EQ(bind(listening.get(), qwk::asSocketAddress(address), sizeof address), 0);
        ASSERT_EQ(listen(listening.get(), 5), 0);
    }
    // Takes a client's request, answers it and closes.
    std::string answer(const std::string& text) {
        const Descriptor connection(accept(listening.get(), nullptr, nullptr));
        char request[1024];
        const ssize_t length = recv(connection.get(), request, sizeof request, 0);
        EXPECT_EQ(send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
        return {request, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }
    // A client in this process writes to `out`, which it closes, and gets this answer.
    std::future<void> startClient(std::FILE* out, const std::string& text) {
        auto client = std::async(
            std::launch::async,
            [out] {
                EXPECT_EQ(qwk::sendRequest("quillwick -g 1", out), 0);
                EXPECT_EQ(std::fclose(out), 0);
            });
        daemon_ = std::async(std::launch::async, [this, text] { answer(text); });
        return client;
    }
    const Descriptor listening{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};

private:
    std::future<void> daemon_;
};

class DaemonTest : public System {
protected:
    // The system calls of the daemon that runs under a tracer, which end with it.
    static std::string endTraced(Daemon& tracer) {
        const std::string id = std::to_string(tracer.pid());
        kill(std::stoi(readFile("/proc/" + id + "/task/" + id + "/children")), SIGTERM);
        EXPECT_EQ(tracer.wait(30s), 0);
        return readFile("/tmp/trace");
    }
    // A daemon's command comes after it. The leak check itself would need to trace the daemon.
    static std::string tracing(const std::string& options) {
        return "ASAN_OPTIONS=detect_leaks=0 exec strace -f -y -o /tmp/trace -e trace=" + options;
    }
};

} // namespace

TEST_F(ClientTest, printsItsUsageWithoutADaemon) {
    const std::string usage = client({"-h"});
    EXPECT_EQ(usage.find("Usage: quillwick\n"), 0U);
    EXPECT_EQ(std::count(usage.begin(), usage.end(), '\n'), 15);
}

TEST_F(ClientTest, saysWhenNobodyListens) {
    SyslogCapture syslog;
    const RunResult result = run(quillwick, {"-h", "-p"});
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
    for (const auto& [text, printed] : cases) {
        ChildProcess process(quillwick, {"-g", "1000"});
        EXPECT_EQ(answer(text), quillwick + " -g 1000" + '\0');
        EXPECT_EQ(process.wait(10s), 0);
        EXPECT_EQ(process.output(), printed);
    }
}

TEST_F(ClientTest, endsWhenNobodyReadsItsOutput) {
    listenAsDaemon(); // and never answers, like a quiet log
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    const std::string brokenPipe = "exec 3<>/tmp/fifo 4>/tmp/fifo 3<&- >&4; exec " + quillwick;
    for (const char* arguments : {" -h", " -l -g 0"})
        EXPECT_EQ(run("/bin/sh", {"-c", brokenPipe + arguments}).status, 0);
}

TEST_F(ClientTest, keepsTheOrderOfTheStreamThatItWritesTo) {
    listenAsDaemon();
    char* text = nullptr; // as a stream without a descriptor leaves it
    std::size_t length = 0;
    const auto open = {open_memstream(&text, &length), std::fopen("/tmp/out", "w")};
    for (std::FILE* const out : open) {
        std::fputs("before ", out);
        startClient(out, "after\0"s).get();
    }
    EXPECT_EQ(std::string(text, length), "before after\n");
    EXPECT_EQ(readFile("/tmp/out"), "before after\n");
    std::free(text);
}

TEST_F(ClientTest, losesNothingWhileItsOutputWouldBlock) {
    listenAsDaemon();
    // More than a pipe holds, left in the stream's buffer or in the answer.
    for (const auto& [buffered, answer] : {std::pair(200000U, 1U), {0U, 200000U}}) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
        const Descriptor reader(ends[0]);
        std::FILE* const out = fdopen(ends[1], "w");
        std::vector<char> buffer(300000);
        std::setvbuf(out, buffer.data(), _IOFBF, buffer.size());
        std::fputs(std::string(buffered, 'b').c_str(), out);
        const auto client = startClient(out, std::string(answer, 'a'));
        EXPECT_TRUE(eventually(10s, [&] { // it is full
            int waiting = 0;
            return ioctl(reader.get(), FIONREAD, &waiting) == 0 && waiting > 60000;
        }));
        fcntl(reader.get(), F_SETFL, 0);
        std::string all;
        char piece[65536];
        for (ssize_t got; (got = read(reader.get(), piece, sizeof piece)) > 0;)
            all.append(piece, static_cast<std::size_t>(got));
        EXPECT_EQ(all, std::string(buffered, 'b') + std::string(answer, 'a'));
    }
}

TEST_F(DaemonTest, killedDaemonsLoseNothingAndNumbersGoOn) {
    std::vector<std::string> expected;
    for (int round = 0; round < 4; ++round) {
        Daemon daemon;
        // Every start reads the boot's entries again, and they get new numbers.
        expected.insert(expected.end(), texts.begin(), texts.end());
        logMore(30);
        expected.insert(expected.end(), texts.end() - 30, texts.end());
        ASSERT_TRUE(eventually(30s, [&] {
            return messagesOf(client({"-g", "1000000"})) == expected;
        }));
        EXPECT_EQ(daemon.end(SIGKILL), -SIGKILL);
    }
}

TEST_F(DaemonTest, rotationVacuumAndBurstsLoseNothing) {
    Daemon daemon;
    journald.log(5, "test", "a notice is above the level");
    for (int round = 0; round < 30; ++round) {
        logMore(100);
        journald.rotate();
        if (round % 5 == 4)
            ASSERT_TRUE(arrives(texts.back()));
        run("/usr/bin/journalctl", {"--vacuum-files=8"}); // of files that were read long ago
    }
    logMore(20000);
    expectAll();
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(DaemonTest, withoutInotifyEntriesStillArriveAndTheProcessorRests) {
    Daemon tracer(tracing("inotify_init1 --inject=inotify_init1:error=EMFILE"));
    for (int i = 0; i < 10; ++i)
        store("entry " + std::to_string(i));
    int reports = 0;
    for (const SyslogMessage& message : syslog.take())
        reports += message.text == "Failed to wait for changes: Too many open files";
    EXPECT_EQ(reports, 1); // each would be an entry itself
    const std::string trace = endTraced(tracer);
    const auto tries = std::count(trace.begin(), trace.end(), '\n');
    EXPECT_GT(tries, 10);
    EXPECT_LT(tries, 1000); // one in 100 ms
}

TEST_F(DaemonTest, linesAreOnStableStorageBeforeTheChipLetsThemGo) {
    writeFile(qwk::configurationPath, "log4cplus.logsize=524288\n");
    writeFile(qwk::logFilePath, std::string(524200, 'x') + '\n'); // rolls with the second line
    Daemon tracer(tracing("write,fsync --inject=fsync:error=EIO:when=3"));
    log({"one", "two"});
    store("three");
    EXPECT_EQ(client({"-f"}), "");
    EXPECT_TRUE(syslog.waitFor("Cannot sync \"/var/logperm\" (Input/output error).", 10s));
    EXPECT_EQ(client({"-f"}), ""); // writes nothing and syncs nothing
    store("four");
    EXPECT_EQ(client({"-f"}), "");
    std::string order; // l: a line, s: a sync, f: one that failed, H: a header copy
    const std::string calls = endTraced(tracer);
    std::istringstream trace(calls);
    for (std::string line; std::getline(trace, line);)
        if (line.find("fsync(") != std::string::npos)
            order += line.find("= 0") != std::string::npos ? 's' : 'f';
        else if (line.find("hdr1") != std::string::npos)
            order += 'H';
        else if (line.find(", \"[0000") != std::string::npos)
            order += 'l';
    EXPECT_EQ(order, "HHHHHH"
                     "lllssfHH"
                     "HH"
                     "lsHH");
    EXPECT_NE(calls.find("larkspur.log.1>"), std::string::npos);
}

TEST_F(DaemonTest, runsOnlyOnce) {
    Daemon daemon;
    EXPECT_EQ(client({}), "Server already running.\n");
    // Neither a client nor a program with a longer name is a daemon. Stopped, both stay.
    ASSERT_EQ(symlink("/usr/bin/yes", "/tmp/quillwick2"), 0);
    ChildProcess listener(quillwick, {"-l", "-g", "0"});
    ChildProcess other("/tmp/quillwick2", {});
    listener.kill(SIGSTOP);
    other.kill(SIGSTOP);
    EXPECT_EQ(daemon.end(), 0);
    Daemon second;
    EXPECT_EQ(second.end(), 0);
}

TEST_F(DaemonTest, nothingElseGetsTheNumbersOfClosedStandardDescriptors) {
    Daemon daemon("exec <&- >&- 2>&-; exec");
    const std::string descriptors = "/proc/" + std::to_string(daemon.pid()) + "/fd/";
    for (const char* number : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::canonical(descriptors + number),
                  std::filesystem::canonical("/dev/null"));
}

TEST_F(DaemonTest, aMissingChipIsWaitedForAndItsEntryKept) {
    Daemon daemon;
    // The chip is missing twice. Only the first time is reported, after 10 s.
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
            device = std::make_unique<framEmulator::FramDevice>(qwk::eepromDevicePath, chip);
            EXPECT_TRUE(arrives("kept"));
        }
    }
    EXPECT_EQ(receiveAll(request("quillwick -f")), "Cannot access EEPROM.\0"s);
    EXPECT_EQ(daemon.end(), 0); // out of the wait without limit
}
