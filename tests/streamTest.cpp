// Many clients follow the log of the running daemon for as long as they like, through bursts,
// flushes, rolls and dumps, and miss nothing. QUILLWICK_STREAM_SECONDS sets how long.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "logger/sequenceNumber.h"
#include "support/daemon.h"

using namespace testSupport;

namespace {

// One client on a thread of its own, until the daemon ends or it is told to go. Each line begins
// with its number, and the text of entry n is n; the first that does not follow is a failure.
class Listener {
public:
    Listener(unsigned seed, bool slow, bool returning)
        : thread_([this, seed, slow, returning] {
              std::mt19937 random(seed);
              while (!over_ && follow(random, slow, returning ? random() % 200 : SIZE_MAX)) {
              }
          }) {}
    ~Listener() {
        over_ = true;
        thread_.join();
    }
    // The number of the next line, once one has come; beyond all numbers after a failure.
    std::atomic<std::size_t> next{0};

private:
    // False when there is no daemon any more, or a line was wrong.
    bool follow(std::mt19937& random, bool slow, std::size_t pieces) {
        next = 0;
        const Descriptor socket = request("quillwick -l -g 0");
        const timeval patience{0, 100000};
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string line;
        for (char piece[4096]; !over_ && pieces > 0; --pieces) {
            const ssize_t got = recv(socket.get(), piece, sizeof piece, 0);
            if (got == 0 || !socket.isOpen())
                return false;
            for (const char* byte = piece; byte < piece + got; ++byte)
                if (*byte != '\n' && *byte != '\0')
                    line += *byte;
                else if (!take(std::exchange(line, "")))
                    return false;
            if (slow)
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 10));
        }
        return true;
    }
    bool take(const std::string& line) {
        const std::size_t number = std::strtoul(line.c_str() + line.rfind(' ') + 1, nullptr, 10);
        const std::string tag = qwk::sequenceTag(static_cast<std::uint32_t>(number));
        const bool good = line.compare(0, tag.size(), tag) == 0 && (next == 0 || next == number);
        EXPECT_TRUE(good) << "after line " << next - 1 << " came: " << line;
        next = good ? number + 1 : SIZE_MAX;
        return good;
    }

    std::atomic<bool> over_{false};
    std::thread thread_;
};

// Threads and descriptors. The journal keeps each of its files open, however many journald has
// made; they do not count.
std::size_t inUse(const std::string& process) {
    std::size_t count = 0;
    for (const char* kind : {"/task", "/fd"})
        for (const auto& entry : std::filesystem::directory_iterator(process + kind)) {
            std::error_code none; // for no link, or one that has gone by now
            const std::string target = std::filesystem::read_symlink(entry.path(), none).string();
            count += target.find("/run/log/journal/") == std::string::npos ? 1U : 0U;
        }
    return count;
}

// The peak of the resident memory, the memory now, and what of it is the process's own.
void printMemory(const std::string& process) {
    const std::string status = readFile(process + "/status");
    const std::size_t begin = status.find("VmHWM");
    std::printf("%s", status.substr(begin, status.find("RssFile") - begin).c_str());
}

} // namespace

using StreamTest = System;

TEST_F(StreamTest, everyListenerGetsEveryLineOnceForAsLongAsItListens) {
    constexpr int fastCount = 30; // then 5 slow ones, then 15 that hang up and come back
    writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\nlog4cplus.logcount=1000\n");
    const char* text = std::getenv("QUILLWICK_STREAM_SECONDS");
    const int duration = text != nullptr ? std::atoi(text) : 20;

    Daemon daemon;
    const std::string process = "/proc/" + std::to_string(daemon.process().pid());
    std::size_t sent = 0;
    const auto send = [&](std::size_t count) {
        for (; count > 0; --count)
            journald->log(3, "test", std::string(180, '0') + ' ' + std::to_string(sent++));
    };
    send(1);
    ASSERT_TRUE(arrives(" 0"));
    EXPECT_EQ(client({"-f"}), ""); // from here on the log file is kept open
    const std::size_t inUseAtStart = inUse(process);
    printMemory(process);

    std::vector<std::unique_ptr<Listener>> listeners;
    for (unsigned i = 0; i < 50; ++i)
        listeners.push_back(std::make_unique<Listener>(i, i >= fastCount && i < 35, i >= 35));
    const auto fastOnesHave = [&](std::size_t count) {
        return std::all_of(listeners.begin(), listeners.begin() + fastCount,
                           [&](const auto& listener) { return listener->next >= count; });
    };
    // A listener starts with the newest entry when it first wakes: let each have its first.
    ASSERT_TRUE(eventually(60s, [&] {
        send(1);
        journald->sync();
        return fastOnesHave(1);
    }));
    const auto begin = std::chrono::steady_clock::now();
    for (int second = 0; second < duration; ++second) {
        send(second % 60 == 5 || second % 60 == 12 ? 5000 : 100);
        if (second % 10 == 9)
            EXPECT_EQ(client({"-f"}), "");
        if (second % 7 == 3)
            EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
        std::this_thread::sleep_until(begin + std::chrono::seconds(second + 1));
    }
    journald->sync();
    EXPECT_EQ(client({"-f"}), "");
    send(1); // whoever had all of a file that the flush began goes on with the next line
    EXPECT_TRUE(eventually(120s, [&] { return fastOnesHave(sent); }));
    std::printf("%zu entries to %zu listeners\n", sent, listeners.size());
    listeners.clear();
    EXPECT_TRUE(eventually(60s, [&] {
        send(1); // a stream sees that its client has gone with the next entry
        journald->sync();
        return inUse(process) <= inUseAtStart;
    }));
    printMemory(process);
    EXPECT_EQ(daemon.end(), 0);
}
