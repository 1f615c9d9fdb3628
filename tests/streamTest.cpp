// Many clients follow the log of the running daemon for as long as they like, through bursts,
// flushes, rolls and dumps, and miss nothing. QUILLWICK_STREAM_SECONDS sets how long.

#include <algorithm>
#include <cstdlib>
#include <random>

#include "logger/sequenceNumber.h"
#include "support/daemon.h"

using namespace testSupport;

namespace {

// Each line begins with its number, and the text of entry n is n.
struct Listener {
    void receive(std::size_t most) {
        char piece[65536];
        const ssize_t got = recv(socket.get(), piece, most, MSG_DONTWAIT);
        EXPECT_NE(got, 0) << "hung up before line " << next;
        for (const char* byte = piece; byte < piece + got; ++byte)
            if (*byte != '\n' && *byte != '\0')
                line += *byte;
            else
                take(std::exchange(line, ""));
    }
    void take(const std::string& whole) {
        const auto number = std::strtoul(whole.c_str() + whole.rfind(' ') + 1, nullptr, 10);
        EXPECT_EQ(whole.find(qwk::sequenceTag(static_cast<std::uint32_t>(number))), 0U) << whole;
        EXPECT_TRUE(next == 0 || next == number) << "before line " << next << " came " << whole;
        next = number + 1;
    }

    Descriptor socket = request("quillwick -l -g 0");
    std::string line;     // that has begun
    std::size_t next = 0; // number of the next line, once one has come
};

class StreamTest : public System {
protected:
    static constexpr std::size_t fast = 30, slow = 5, returning = 15;

    void send(std::size_t count) {
        for (; count > 0; --count)
            journald.log(3, "test", std::string(180, '0') + ' ' + std::to_string(sent++));
        journald.sync();
    }
    void receive() {
        for (std::size_t i = 0; i < fast; ++i)
            listeners[i].receive(65536);
        for (std::size_t i = fast; i < listeners.size(); ++i)
            if (random() % 10 == 0)
                listeners[i].receive(4096);
        if (random() % 10 == 0)
            listeners[fast + slow + random() % returning] = {};
    }
    bool fastOnesHave(std::size_t count) {
        receive();
        return std::all_of(listeners.begin(), listeners.begin() + fast,
                           [&](const Listener& listener) { return listener.next >= count; });
    }
    // The daemon's threads and descriptors. The journal keeps each of its files open, however many
    // journald has made; they do not count.
    std::size_t inUse() {
        std::size_t count = 0;
        for (const std::string kind : {"/task", "/fd"})
            for (const auto& entry : std::filesystem::directory_iterator(
                     "/proc/" + std::to_string(daemon.pid()) + kind)) {
                std::error_code none; // for a file that is no link or has just been closed
                const std::string target = std::filesystem::read_symlink(entry.path(), none);
                count += target.find(qwk::journalFolderPath) == std::string::npos ? 1U : 0U;
            }
        return count;
    }

    Daemon daemon{"echo 'log4cplus.logsize=524288\nlog4cplus.logcount=1000' >/etc/quillwick.conf;"
                  "exec"};
    std::mt19937 random;
    std::size_t sent = 0;
    std::vector<Listener> listeners;
};

} // namespace

TEST_F(StreamTest, everyListenerGetsEveryLineOnceForAsLongAsItListens) {
    const char* text = std::getenv("QUILLWICK_STREAM_SECONDS");
    const int seconds = text != nullptr ? std::atoi(text) : 20;
    send(1);
    ASSERT_TRUE(arrives(" 0"));
    EXPECT_EQ(client({"-f"}), ""); // from here on the log file is kept open
    const std::size_t inUseAtStart = inUse();
    listeners.resize(fast + slow + returning);
    // A listener starts with the newest entry when it first wakes: let each have its first.
    ASSERT_TRUE(eventually(60s, [&] { return send(1), fastOnesHave(1); }));
    for (int second = 0; second < seconds && !HasFailure(); ++second) {
        send(second % 60 == 5 || second % 60 == 12 ? 5000 : 100);
        if (second % 10 == 9)
            EXPECT_EQ(client({"-f"}), "");
        if (second % 7 == 3)
            EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
        eventually(1s, [&] { return receive(), false; }); // for a second
    }
    EXPECT_EQ(client({"-f"}), "");
    send(1); // a listener that had all of a file that the flush began goes on with the next line
    EXPECT_TRUE(eventually(120s, [&] { return fastOnesHave(sent); }));
    listeners.clear();
    // With the next entry, a stream notices that its client has left.
    EXPECT_TRUE(eventually(60s, [&] { return send(1), inUse() <= inUseAtStart; }));
    EXPECT_EQ(daemon.end(), 0);
}
