// A fault that lasts: a daemon whose chip does not answer, or takes long to fail, with a real
// journal that receives its complaints; and the limits that keep memory and journal small.

#include "logger/recentEntries.h"
#include "support/daemon.h"
#include "support/messageLimiter.h"

using namespace testSupport;
using qwk::MessageLimiter;

namespace {

class FaultTest : public System {
protected:
    void letTheJournalTakeComplaints() {
        std::filesystem::remove("/dev/log");
        std::filesystem::create_symlink("/run/systemd/journal/dev-log", "/dev/log");
    }
    // The daemon's own entries in the journal.
    static std::size_t complaints() {
        const std::string text =
            run("/bin/journalctl", {"-q", "-t", "quillwick", "-o", "cat"}).output;
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    }
};

// The service manager, as far as the daemon knows it.
class Manager {
public:
    Manager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = {AF_UNIX, "/tmp/manager"};
        if (bind(socket_.get(), qwk::asSocketAddress(address), sizeof address) != 0)
            throw std::runtime_error("cannot bind the manager's socket");
        const timeval limit{30, 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    // For a shell that starts the daemon. systemd's own programs use the variable, too.
    static constexpr const char* start = "NOTIFY_SOCKET=/tmp/manager exec";
    // The next message, with a T for the time in it.
    std::string next() {
        char piece[512];
        const ssize_t length = recv(socket_.get(), piece, sizeof piece, 0);
        std::string text(piece, static_cast<std::size_t>(std::max(length, ssize_t{0})));
        const std::size_t since = text.find(" since ");
        return since == std::string::npos
                   ? text
                   : text.replace(since + 7, sizeof "2000-01-01 00:00:00" - 1, "T");
    }

private:
    Descriptor socket_;
};

} // namespace

TEST_F(FaultTest, theServiceManagerLearnsEachState) {
    std::filesystem::rename("/run/log/journal", "/run/log/hidden");
    Manager manager;
    Daemon daemon(Manager::start);
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_EQ(manager.next(), "STATUS=Storing entries.");
    EXPECT_EQ(manager.next(), "STATUS=Waiting for a journal under /run/log/journal.");
    std::filesystem::rename("/run/log/hidden", "/run/log/journal");
    EXPECT_EQ(manager.next(), "STATUS=Storing entries.");
    chip.refuseOpens();
    log({"waits"});
    EXPECT_EQ(manager.next(), "STATUS=Waiting for /dev/i2c-2 since T.");
    chip.refuseOpens(0);
    EXPECT_EQ(manager.next(), "STATUS=Storing entries.");
    chip.failFrom(1);
    for (int i = 0; i < 5; ++i)
        log({"in memory"});
    for (const char* count : {"1", "2", "4"})
        EXPECT_EQ(manager.next(),
                  "STATUS=The chip has not answered since T. Entries in memory only: " +
                      std::string(count) + '.');
    log({"the last of these"});
    ASSERT_TRUE(arrives("the last of these"));
    chip.clearFaults();
    log({"stored"});
    EXPECT_EQ(manager.next(), "STATUS=Storing entries.");
    ChildProcess second("/bin/bash", {"-c", Manager::start + (' ' + buildPath("quillwick"))});
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Another daemon runs already.");
    EXPECT_EQ(second.wait(30s), 0);
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_EQ(manager.next(), "STOPPING=1\nSTATUS=Stopping.");
}

TEST_F(FaultTest, aDeadChipIsSoonQuietAndUsedAgainWhenItAnswers) {
    letTheJournalTakeComplaints();
    Daemon daemon;
    chip.failFrom(1);
    log({"begins"});
    // Three complaints for each entry, which are entries themselves.
    ASSERT_TRUE(eventually(60s, [] { return complaints() >= 3 * 256; }));
    log({"in memory"});
    EXPECT_TRUE(arrives("in memory"));
    EXPECT_LT(complaints(), 1000U);
    chip.clearFaults();
    log({"stored"});
    EXPECT_TRUE(arrives("stored"));
    client({"-f"});
    EXPECT_NE(readFile(qwk::logFilePath).find("stored"), std::string::npos);
    EXPECT_EQ(daemon.end(), 0);
}

TEST_F(FaultTest, aBusThatTimesOutKeepsNeitherClientsNorSignalsWaiting) {
    framEmulator::DeviceOptions options;
    options.onTransfer = [](const framEmulator::Transfer&) { std::this_thread::sleep_for(300ms); };
    device.reset();
    device = std::make_unique<framEmulator::FramDevice>(qwk::eepromDevicePath, chip, options);
    chip.failFrom(1);
    constexpr std::uint64_t entries = 300; // each keeps the chip for at least three transfers
    for (std::uint64_t i = 0; i < entries; ++i)
        journald.log(3, "test", "waits");
    log({"the last one"});
    Daemon daemon;
    ASSERT_TRUE(arrives("waits"));
    for (const char* option : {"-f", "-p", "--clear"})
        EXPECT_EQ(client({option}), "");
    EXPECT_LT(chip.transferCount(), 100U);
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_LT(chip.transferCount(), 120U);
}

TEST(MessageLimiterTest, letsABurstThroughThenOneInTenSecondsAndRegainsItsAllowance) {
    MessageLimiter limiter;
    MessageLimiter::Clock::time_point now{};
    const auto letThrough = [&](const char* format, int count) {
        std::uint32_t written = 0, heldBack = 0;
        for (; count > 0; --count) {
            const auto verdict = limiter.admit(format, now);
            written += verdict.isLetThrough ? 1U : 0U;
            heldBack += verdict.heldBack;
        }
        return std::pair(written, heldBack);
    };
    const std::string sameText = "one %d";
    const struct {
        std::chrono::milliseconds pause;
        const char* format;
        int count;
        std::uint32_t written, heldBack;
    } steps[] = {{0ms, "one %d", 200, 200, 0},   {0ms, sameText.c_str(), 100, 56, 0},
                 {0ms, "other", 256, 256, 0},    {9999ms, "one %d", 1, 0, 0},
                 {1ms, "one %d", 10, 1, 45},     {25s, "one %d", 10, 2, 9},
                 {5s, "one %d", 1, 1, 8}, // the half period is not lost
                 {20min, "one %d", 200, 120, 0}, {24h, "one %d", 300, 256, 80}};
    for (const auto& [pause, format, count, written, heldBack] : steps) {
        now += pause;
        EXPECT_EQ(letThrough(format, count), std::pair(written, heldBack)) << count;
    }
    // More kinds than there is room for share one allowance.
    std::vector<std::string> kinds(100);
    std::uint32_t written = 0;
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        kinds[i] = std::to_string(i);
        written += letThrough(kinds[i].c_str(), 300).first;
    }
    EXPECT_EQ(written, (61U + 1) * 256);
}

TEST(RecentEntriesTest, losesWholeLinesFromItsFrontAboveItsBound) {
    std::string lines(qwk::maxRecentEntries - 10, 'x');
    for (std::size_t at = 99; at < lines.size(); at += 100)
        lines[at] = '\n';
    const std::string most = lines;
    EXPECT_FALSE(qwk::dropOldestLines(lines));
    EXPECT_EQ(lines, most);
    lines += "\nthe newest one";
    EXPECT_TRUE(qwk::dropOldestLines(lines));
    EXPECT_FALSE(qwk::dropOldestLines(lines));
    const std::size_t dropped = most.size() + 15 - lines.size();
    EXPECT_EQ(dropped % 100, 0U);
    EXPECT_EQ(lines, (most + "\nthe newest one").substr(dropped));
}
