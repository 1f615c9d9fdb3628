// The control socket of the running daemon: requests, unruly clients, what stands in its way, and
// its end with clients of every kind.

#include <cstdlib>
#include <random>
#include <sys/mount.h>
#include <thread>

#include "support/daemon.h"

using namespace testSupport;
using namespace std::string_literals;

namespace {

using ServerTest = System;

int countFromEnvironment(const char* name, int standard) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : standard;
}

} // namespace

TEST_F(ServerTest, answersEachRequestOnceAndCloses) {
    Daemon daemon;
    log({"hello"});
    ASSERT_TRUE(arrives("hello"));
    const std::string parseError = "Parse error.\0"s;
    const std::pair<std::string, std::string> cases[] = {
        {"quillwick -x\0"s, parseError},
        {"quillwick -x", parseError}, // the zero byte is not waited for
        {"quillwick\0 -x\0"s, ""},    // nor read beyond
        {"quillwick" + std::string(1012, ' ') + "-x" + "-g", parseError}, // 1024 bytes count
        {"quillwick" + std::string(1015, ' ') + "-x", ""},
        {"quillwick" + std::string(100000, ' '), ""},
        {"\0"s, ""},
        {"quillwick -l -p\0"s, ""},
        {"quillwick -g 0\0"s, ""}};
    for (const auto& [bytes, answer] : cases) {
        const Descriptor socket = connectToDaemon();
        send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        EXPECT_EQ(receiveAll(socket), answer) << bytes.substr(0, 40);
    }
    const Descriptor halfClosed = request("quillwick -g 1000");
    shutdown(halfClosed.get(), SHUT_WR);
    EXPECT_NE(receiveAll(halfClosed).find("hello\0"s), std::string::npos);
}

TEST_F(ServerTest, dumpsFlushesAndClearsTheChip) {
    Daemon daemon;
    log({"one", "two"});
    ASSERT_TRUE(arrives("two"));
    const std::string dump = client({"-p"});
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 512);
    EXPECT_EQ(dump.find("0000  68 64 72 31 00 12 "), 0U);
    EXPECT_NE(dump.find("\n1ff0  00"), std::string::npos);
    EXPECT_EQ(logFile(), "");
    EXPECT_EQ(client({"-f"}), "");
    const std::string flushed = logFile();
    EXPECT_NE(flushed.find("two\n"), std::string::npos);
    EXPECT_EQ(client({"-f"}), "");
    EXPECT_EQ(logFile(), flushed);
    log({"three"});
    ASSERT_TRUE(arrives("three"));
    EXPECT_EQ(client({"--clear"}), "");
    EXPECT_EQ(chip.image(), framEmulator::Image{});
    EXPECT_EQ(client({"-g", "100000"}), flushed); // three is gone
    log({"four"});
    ASSERT_TRUE(arrives("four"));
    EXPECT_EQ(client({"-g", "100000"}).find("[00000002] "), flushed.size()); // as the file goes on
}

TEST_F(ServerTest, aClientThatStopsReadingDelaysNobody) {
    Daemon daemon;
    writeFile(qwk::logFilePath, std::string(3000000, 'x') + '\n');
    const Descriptor stuck[] = {request("quillwick -g 2000000000"),
                                request("quillwick -l -g 2000000000"), connectToDaemon()};
    log({"meanwhile"});
    EXPECT_TRUE(arrives("meanwhile"));
    EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(ServerTest, survivesWhatStandsAtItsPath) {
    writeFile("/tmp/quillwick", "left by a killed daemon");
    EXPECT_EQ(Daemon().end(), 0);
    ASSERT_EQ(symlink("/tmp/elsewhere", qwk::controlSocketPath), 0);
    EXPECT_EQ(Daemon().end(), 0);
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
    std::filesystem::create_directory(qwk::controlSocketPath);
    ChildProcess daemon(buildPath("quillwick"), {}, {{}, {}, true});
    EXPECT_TRUE(daemon.waitForOutput(
        "Cannot bind socket to /tmp/quillwick (Address already in use)\n.", 10s));
    EXPECT_TRUE(
        syslog.waitFor("Cannot bind socket to /tmp/quillwick (Address already in use).", 10s));
    EXPECT_EQ(client({"-f"}), "Cannot connect to server.\n");
    log({"stored all the same"});
    EXPECT_TRUE(eventually(10s, [&] {
        const auto image = chip.image();
        return std::string(image.begin(), image.end()).find("stored all the same") !=
               std::string::npos;
    }));
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait(10s), 0);
    std::filesystem::remove(qwk::controlSocketPath);
}

TEST_F(ServerTest, storesEntriesWithoutRoomForTheLog) {
    ASSERT_EQ(mount("none", "/var/logperm", "tmpfs", 0, "size=64k"), 0);
    const auto mounted =
        std::shared_ptr<void>(nullptr, [](void*) { umount2("/var/logperm", MNT_DETACH); });
    writeFile("/var/logperm/filler", std::string(60000, 'f'));
    const auto flushOne = [&](const std::string& text) {
        log({text});
        EXPECT_TRUE(arrives(text));
        EXPECT_EQ(client({"-f"}), "");
    };
    {
        Daemon daemon;
        for (int i = 0; i < 100; ++i)
            journald->log(3, "test", std::string(200, '.'));
        flushOne("no room");
        std::filesystem::remove("/var/logperm/filler");
        int tries = 0; // the log file is opened again a second after it failed
        EXPECT_TRUE(eventually(20s, [&] {
            flushOne("room " + std::to_string(++tries));
            return logFile().find("room " + std::to_string(tries)) != std::string::npos;
        }));
        EXPECT_EQ(daemon.end(), 0);
    }
    ASSERT_EQ(mount("none", "/var/logperm", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    Daemon readOnly;
    flushOne("read-only");
    EXPECT_TRUE(syslog.waitFor("log entries written, next", 10s));
    EXPECT_EQ(readOnly.end(), 0);
}

TEST_F(ServerTest, servesOthersBesideHundredsOfIdleConnections) {
    Daemon daemon;
    std::vector<Descriptor> idle;
    while (idle.size() < 500) {
        idle.push_back(connectToDaemon());
        ASSERT_TRUE(idle.back().isOpen());
    }
    log({"beside them"});
    EXPECT_TRUE(arrives("beside them"));
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(ServerTest, storesEntriesAfterItsDescriptorsWereUsedUp) {
    ChildProcess daemon("/bin/sh", {"-c", "ulimit -n 30; exec " + buildPath("quillwick")});
    ASSERT_TRUE(eventually(30s, [] { return connectToDaemon().isOpen(); }));
    std::vector<Descriptor> idle;
    ASSERT_TRUE(eventually(30s, [&] { // until it refuses: it accepts no more for good
        idle.push_back(connectToDaemon());
        return !idle.back().isOpen();
    }));
    EXPECT_EQ(client({"-f"}), "Cannot connect to server.\n");
    log({"kept"});
    idle.clear();
    EXPECT_TRUE(eventually(20s, [&] {
        const auto image = chip.image();
        return std::string(image.begin(), image.end()).find("kept") != std::string::npos;
    }));
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait(10s), 0);
}

TEST_F(ServerTest, onlyItsUserMayConnect) {
    const mode_t before = umask(0);
    Daemon daemon;
    umask(before);
    struct stat status;
    ASSERT_EQ(stat(qwk::controlSocketPath, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(daemon.end(), 0);
}

// QUILLWICK_SHUTDOWNS sets how many.
TEST_F(ServerTest, endsAtAnyMomentWithClientsOfEveryKind) {
    std::mt19937 random(20);
    const int signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM};
    const int rounds = countFromEnvironment("QUILLWICK_SHUTDOWNS", 30);
    std::vector<std::chrono::steady_clock::duration> took;
    for (int round = 0; round < rounds; ++round) {
        Daemon daemon;
        std::vector<Descriptor> clients;
        for (const char* line : {"quillwick -l -g 0", "quillwick -l -g 1000000", "quillwick -p",
                                 "quillwick -f", "quillwick --clear", "quillwick -g 1000"})
            clients.push_back(request(line));
        clients.push_back(connectToDaemon()); // says nothing
        for (auto entries = random() % 20; entries > 0; --entries)
            journald->log(3, "test", "round " + std::to_string(round));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000)); // any moment
        const auto before = std::chrono::steady_clock::now();
        ASSERT_EQ(daemon.end(signals[round % 5]), 0) << round;
        took.push_back(std::chrono::steady_clock::now() - before);
        ASSERT_NE(access(qwk::controlSocketPath, F_OK), 0) << round;
    }
    std::sort(took.begin(), took.end());
    std::printf("%d shutdowns, the longest took %.3f s\n", rounds,
                std::chrono::duration<double>(took.back()).count());
    EXPECT_LT(took[took.size() / 2], 900ms); // no wait lasts its full second
}
