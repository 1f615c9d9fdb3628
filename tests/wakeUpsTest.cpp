// Wake-ups by descriptors of the service manager: their effect on the waits of the journal reader,
// the kinds of descriptors, and that the daemon loses and repeats nothing with them.

#include <atomic>
#include <dlfcn.h>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <sys/ioctl.h>
#include <thread>

#include "journal/journal.h"
#include "journal/wakeUps.h"
#include "support/daemon.h"
#include "support/stopRequest.h"

using namespace testSupport;
using namespace std::string_literals;

namespace {
std::atomic<int> looksInVain{0};
} // namespace

int sd_journal_next(sd_journal* journal) {
    static const auto next = reinterpret_cast<int (*)(sd_journal*)>(dlsym(RTLD_NEXT, __func__));
    const int result = next(journal);
    looksInVain += result == 0 ? 1 : 0;
    return result;
}

namespace {

std::vector<Descriptor> onlyA(Descriptor descriptor) {
    std::vector<Descriptor> all;
    all.push_back(std::move(descriptor));
    return all;
}

class WakeUpsTest : public System {
protected:
    WakeUpsTest() {
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/syslog"};
        connect(sender.get(), qwk::asSocketAddress(address), sizeof address);
    }
    void forge(const std::string& datagram) {
        send(sender.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
    }
    // journald never has more messages in the queue than it holds, however busy this machine is.
    // The daemon must empty the queue whatever else it is doing.
    void logInBatches(int count) {
        for (; count > 0; count -= queued) {
            logMore(std::min(count, queued));
            journald.sync();
            int next = 0;
            EXPECT_TRUE(eventually(
                30s, [&] { return ioctl(forwarding.get(), FIONREAD, &next) == 0 && next == 0; }));
        }
    }
    // The number of looks in vain when no more have come for a second.
    static int looksAtRest() {
        int seen = 0;
        do
            seen = looksInVain;
        while (eventually(1s, [&] { return looksInVain != seen; }));
        return seen;
    }

    static constexpr int queued = 150;
    Descriptor forwarding = makeForwardingSocket();
    const Descriptor sender{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

} // namespace

TEST_F(WakeUpsTest, rotationVacuumBurstsAndAMissingChipLoseAndRepeatNothing) {
    const auto daemon = startWithWakeUps(forwarding);
    for (int round = 0; round < 12; ++round) {
        logInBatches(round % 4 == 3 ? 1000 : 20);
        journald.rotate();
        run("/bin/journalctl", {"--vacuum-files=4"}); // of files that were read long ago
        ASSERT_TRUE(arrives(texts.back()));
    }
    device.reset();
    logInBatches(1000);
    EXPECT_EQ(run("/bin/journalctl", {"-o", "cat", "-t", "systemd-journald"}).output.find("missed"),
              std::string::npos);
    device = std::make_unique<framEmulator::FramDevice>("/dev/i2c-2", chip);
    logMore(10000);
    expectAll();
    EXPECT_EQ(daemon->end(), 0);
}

// The daemon skips these entries so quickly that each of its looks, one in a millisecond, finds
// some.
TEST_F(WakeUpsTest, theQueueStaysEmptyInSteadyTrafficAfterAFlood) {
    const auto daemon = startWithWakeUps(forwarding);
    logInBatches(1);
    for (int i = 0; i < 100; ++i)
        forge("x");
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4000; ++i) {
        journald.log(6, "test", "skipped");
        std::this_thread::sleep_until(start + i * 250us);
    }
    journald.sync();
    EXPECT_EQ(run("/bin/journalctl", {"-q", "--grep=missed"}).output, "");
}

TEST_F(WakeUpsTest, aHostileSenderNeitherAddsNorDelaysNorLeavesAnything) {
    const auto daemon = startWithWakeUps(forwarding);
    const std::string descriptors = "/proc/" + std::to_string(daemon->pid()) + "/fd";
    const auto countOpen = [&] {
        const std::filesystem::directory_iterator all(descriptors);
        return std::distance(begin(all), end(all));
    };
    logMore(1);
    ASSERT_TRUE(arrives(texts.back())); // with the first entry the log file is opened
    const auto before = countOpen();
    std::atomic<bool> ends{false};
    std::thread flood([&] {
        while (!ends)
            for (const std::string& datagram :
                 {"<0>Jan  1 00:00:00 forged: text"s, ""s, std::string(100000, 'x')})
                forge(datagram);
    });
    for (int i = 0; i < 20; ++i) {
        logMore(50);
        EXPECT_TRUE(arrives(texts.back()));
    }
    expectAll();
    // A client's connection may have been open at either count.
    EXPECT_TRUE(eventually(10s, [&] { return countOpen() <= before; }));
    EXPECT_EQ(daemon->end(), 0); // while the sender goes on
    forwarding.reset();          // as at a stop, which ends a sender's wait
    ends = true;
    flood.join();
}

TEST_F(WakeUpsTest, aHintCausesLooksForHalfASecondOrUntilAnEntryCame) {
    constexpr int looksInAll = 10; // at once, and after 1, 2, 4 ... 128 and the last 245 ms
    qwk::Journal journal(3, onlyA(std::move(forwarding)));
    std::int32_t priority = 0;
    std::uint64_t time = 0;
    std::string text;
    for (const bool isForged : {true, false}) {
        auto reading = std::async(std::launch::async, [&] {
            while (journal.readEntry(priority, time, text) != 1 &&
                   !qwk::stopRequest().isRequested()) {
            }
        });
        for (int i = 0; isForged && i < 100; ++i)
            forge("a flood, after which single hints count as before");
        const int atRest = looksAtRest();
        if (isForged) {
            forge("<0>forged");
            EXPECT_TRUE(eventually(20s, [&] { return looksInVain == atRest + looksInAll; }));
            EXPECT_EQ(looksAtRest(), atRest + looksInAll);
        }
        logMore(1);
        reading.get();
        EXPECT_NE(text.find(texts.back()), std::string::npos);
    }
}

TEST_F(WakeUpsTest, aDescriptorThatEndsOrCannotBeReadIsDroppedWithOneMessage) {
    int pipe[2], pair[2], datagrams[2];
    ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, datagrams), 0);
    Descriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un anyName{AF_UNIX, ""};
    ASSERT_EQ(bind(listening.get(), qwk::asSocketAddress(anyName), sizeof anyName.sun_family), 0);
    ASSERT_EQ(listen(listening.get(), 1), 0);
    struct Case {
        Descriptor descriptor;
        Descriptor writing; // nothing when the descriptor never serves
        std::string reason;
    };
    Case cases[] = {
        {Descriptor(pipe[0]), Descriptor(pipe[1]), "End of input"},
        {Descriptor(pair[0]), Descriptor(pair[1]), "End of input"},
        {Descriptor(datagrams[0]), Descriptor(datagrams[1]), "End of input"},
        {std::move(listening), {}, "Invalid argument"},
        {Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)), {}, "End of input"},
        {Descriptor(open("/dev/null", O_WRONLY | O_CLOEXEC)), {}, "Bad file descriptor"},
        {Descriptor(open("/", O_RDONLY | O_CLOEXEC)), {}, "Is a directory"}};
    for (Case& one : cases) {
        const std::string expected = "Dropped wake-up descriptor " +
                                     std::to_string(one.descriptor.get()) + ": " + one.reason;
        SCOPED_TRACE(expected);
        const bool isDatagramSocket = one.descriptor.get() == datagrams[0];
        const Descriptor same(dup(one.descriptor.get()));
        qwk::WakeUps wakeUps(onlyA(std::move(one.descriptor)));
        if (one.writing.isOpen()) {
            // An empty datagram is a hint, too. It ends a wait without a time-out.
            EXPECT_GE(write(one.writing.get(), "x", isDatagramSocket ? 0 : 1), 0);
            EXPECT_FALSE(wakeUps.wait(-1, -1));
            one.writing.reset();
            shutdown(same.get(), SHUT_RD);      // where that is not the end
            EXPECT_FALSE(wakeUps.wait(-1, -1)); // a millisecond, in which nothing is read
            EXPECT_FALSE(wakeUps.wait(-1, -1));
        }
        EXPECT_TRUE(syslog.waitFor(expected, 20s));
        EXPECT_EQ(syslog.take().size(), 1U);
    }
}
