// The control socket of the running daemon: requests, unruly clients, obstacles in the file system,
// and its end with clients of every kind.

#include <cstdlib>
#include <random>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "support/daemon.h"

using namespace testSupport;
using namespace std::string_literals;

using ServerTest = System;

TEST_F(ServerTest, answersEachRequestOnceAndCloses) {
    Daemon daemon;
    const std::pair<std::string, std::string> cases[] = {
        {"quillwick -x", "Parse error.\0"s},                // the zero byte is not waited for
        {"quillwick\0 -x\0"s, ""},                          // nor read beyond
        {"quillwick" + std::string(1013, ' ') + "-fx", ""}, // 1024 bytes count
        {"quillwick" + std::string(1000000, ' '), ""},
        {"\0"s, ""}};
    for (const auto& [bytes, answer] : cases) {
        const Descriptor socket = connectToDaemon();
        send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        EXPECT_EQ(receiveAll(socket), answer) << bytes.substr(0, 40);
    }
}

TEST_F(ServerTest, dumpsFlushesAndClearsTheChip) {
    Daemon daemon;
    log({"one"});
    store("two");
    EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
    EXPECT_EQ(logFile(), "");
    EXPECT_EQ(client({"-f"}), "");
    const std::string flushed = logFile();
    EXPECT_NE(flushed.find("two\n"), std::string::npos);
    store("three");
    EXPECT_EQ(client({"--clear"}), "");
    EXPECT_EQ(chip.image(), framEmulator::Image{});
    EXPECT_EQ(client({"-g", "100000"}), flushed); // three is lost
    store("four");
    EXPECT_EQ(client({"-g", "100000"}).find("[00000002] "), flushed.size()); // as the file goes on
}

TEST_F(ServerTest, idleClientsAndThoseThatStopReadingDelayNobody) {
    writeFile(qwk::logFilePath, std::string(3000000, 'x') + '\n');
    Daemon daemon;
    log(std::vector<std::string>(9, std::string(60000, 'x')));
    store("after more recent entries than a socket takes");
    std::vector<Descriptor> clients;
    clients.push_back(request("quillwick -g 500000"));
    clients.push_back(request("quillwick -g 2000000000"));
    clients.push_back(request("quillwick -l -g 2000000000"));
    while (clients.size() < 500) {
        clients.push_back(connectToDaemon());
        ASSERT_TRUE(clients.back().isOpen());
    }
    store("meanwhile");
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(ServerTest, takesItsPathOverForItsUserOnly) {
    writeFile("/tmp/elsewhere", "kept");
    ASSERT_EQ(symlink("/tmp/elsewhere", qwk::controlSocketPath), 0);
    Daemon daemon("umask 0; exec");
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(qwk::controlSocketPath).permissions()),
              0600U);
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_EQ(readFile("/tmp/elsewhere"), "kept");
}

TEST_F(ServerTest, storesEntriesWithoutItsPath) {
    std::filesystem::create_directory(qwk::controlSocketPath);
    ChildProcess daemon(buildPath("quillwick"), {});
    const std::string failure = "Cannot bind socket to /tmp/quillwick (Address already in use)";
    EXPECT_TRUE(daemon.waitForOutput(failure + "\n.", 10s));
    EXPECT_TRUE(syslog.waitFor(failure + ".", 10s));
    log({"stored all the same"});
    EXPECT_TRUE(eventually(20s, [&] { return chip.image() != framEmulator::Image{}; }));
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait(10s), 0);
}

TEST_F(ServerTest, storesEntriesWithoutRoomForTheLog) {
    ASSERT_EQ(mount("none", qwk::logFolderPath, "tmpfs", 0, "size=64k"), 0);
    const std::string filler = qwk::logFolderPath + "/filler"s;
    writeFile(filler, std::string(60000, 'f'));
    const auto reachesTheFile = [&](const std::string& text) {
        store(text);
        EXPECT_EQ(client({"-f"}), "");
        return logFile().find(text) != std::string::npos;
    };
    Daemon daemon;
    log(std::vector<std::string>(100, std::string(200, '.')));
    EXPECT_FALSE(reachesTheFile("no room"));
    std::filesystem::remove(filler);
    // The log file is opened again a second after it failed.
    EXPECT_TRUE(eventually(20s, [&] { return reachesTheFile("room"); }));
    EXPECT_EQ(daemon.end(), 0);
    ASSERT_EQ(mount("none", qwk::logFolderPath, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    Daemon readOnly;
    EXPECT_FALSE(reachesTheFile("read-only"));
    EXPECT_EQ(readOnly.end(), 0);
}

TEST_F(ServerTest, storesEntriesAfterItsDescriptorsWereUsedUp) {
    Daemon daemon("ulimit -n 30; exec");
    std::vector<Descriptor> idle;
    ASSERT_TRUE(eventually(30s, [&] { // until it refuses: it accepts no more for good
        idle.push_back(connectToDaemon());
        return !idle.back().isOpen();
    }));
    log({"kept"});
    idle.clear();
    EXPECT_TRUE(eventually(20s, [&] { return chip.image() != framEmulator::Image{}; }));
    EXPECT_EQ(daemon.end(), 0);
}

// QUILLWICK_SHUTDOWNS sets how many.
TEST_F(ServerTest, endsAtAnyMomentWithClientsOfEveryKind) {
    std::mt19937 random(20);
    const int signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM};
    const char* text = std::getenv("QUILLWICK_SHUTDOWNS");
    const int rounds = text != nullptr ? std::atoi(text) : 30;
    std::chrono::steady_clock::duration took{};
    for (int round = 0; round < rounds; ++round) {
        Daemon daemon;
        std::vector<Descriptor> clients;
        for (const char* line : {"quillwick -l -g 0", "quillwick -l -g 1000000", "quillwick -p",
                                 "quillwick -f", "quillwick --clear", "quillwick -g 1000"})
            clients.push_back(request(line));
        clients.push_back(connectToDaemon()); // says nothing
        for (auto entries = random() % 20; entries > 0; --entries)
            journald.log(3, "test", "round " + std::to_string(round));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000)); // any moment
        const auto before = std::chrono::steady_clock::now();
        ASSERT_EQ(daemon.end(signals[round % 5]), 0) << round;
        took += std::chrono::steady_clock::now() - before;
        ASSERT_NE(access(qwk::controlSocketPath, F_OK), 0) << round;
    }
    EXPECT_LT(took, rounds * 900ms); // no wait lasts its full second
}
