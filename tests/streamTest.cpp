// Many clients follow the log of the running daemon for as long as they like, through bursts,
// flushes, rolls and dumps, and miss nothing. QUILLWICK_STREAM_SECONDS sets how long.

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/daemon.h"

using namespace testSupport;

namespace {

using Clock = std::chrono::steady_clock;

// The lines of one connection, as they come: each begins with its number, and the text of entry n
// is n. Remembers the first line that does not follow the one before.
class LineChecker {
public:
    void take(std::string_view bytes) {
        for (const char byte : bytes)
            if (byte != '\n' && byte != '\0')
                line_ += byte;
            else
                check();
    }
    const std::string& fault() const { return fault_; }
    std::size_t next() const { return next_; }

private:
    void check() {
        char* end = nullptr;
        const std::size_t number = std::strtoul(line_.c_str() + 1, &end, 16);
        const std::size_t text = line_.rfind(' ');
        const bool whole = *end == ']' && text != std::string::npos &&
                           std::strtoul(line_.c_str() + text, nullptr, 10) == number;
        if (fault_.empty() && (!whole || (next_ != 0 && number != next_)))
            fault_ = "after line " + std::to_string(next_ - 1) + " came: " + line_;
        next_ = number + 1;
        line_.clear();
    }
    std::string line_;
    std::string fault_;
    std::size_t next_ = 0; // number of the next line, once one has come
};

enum class Kind { fast, slow, returning };

// One client on a thread of its own, until the daemon ends or it is told to go.
class Listener {
public:
    Listener(Kind kind, unsigned seed) : kind_(kind), thread_([this, seed] { follow(seed); }) {}
    ~Listener() {
        over_ = true;
        thread_.join();
    }
    std::atomic<std::size_t> next{0};
    std::atomic<bool> faulty{false};
    std::string fault; // to be read when faulty

private:
    void follow(unsigned seed) {
        std::mt19937 random(seed);
        while (!over_ && followOnce(random)) {
        }
    }
    // False when there is no daemon any more.
    bool followOnce(std::mt19937& random) {
        const Descriptor socket = request("quillwick -l -g 0");
        if (socket.get() < 0)
            return false;
        const timeval patience{0, 100000};
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const std::size_t leaveAfter = kind_ == Kind::returning ? random() % 200 : SIZE_MAX;
        LineChecker lines;
        char piece[4096];
        for (std::size_t pieces = 0; !over_ && pieces < leaveAfter; ++pieces) {
            const ssize_t got = recv(socket.get(), piece, sizeof piece, 0);
            if (got == 0)
                return false;
            lines.take({piece, static_cast<std::size_t>(std::max<ssize_t>(got, 0))});
            next = lines.next();
            if (!lines.fault().empty() && !faulty) {
                fault = lines.fault();
                faulty = true;
            }
            if (kind_ == Kind::slow)
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 10));
        }
        return true;
    }

    const Kind kind_;
    std::atomic<bool> over_{false};
    std::thread thread_;
};

struct Usage {
    long residentKiB = 0; // with the mapped journal files
    long privateKiB = 0;  // of it, the process's own
    std::size_t descriptors = 0;
    std::size_t threads = 0;
};

Usage usageOf(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    Usage usage;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/task"))
        usage.threads += entry.exists() ? 1U : 0U;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fd")) {
        std::error_code gone; // a client's may be, by now
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        // The journal keeps each of its files open, however many journald has made.
        usage.descriptors += target.find("/run/log/journal/") == std::string::npos ? 1U : 0U;
    }
    const std::string status = readFile(process + "/status");
    const auto kiB = [&](const char* field) {
        return std::atol(status.c_str() + status.find(field) + std::strlen(field));
    };
    usage.residentKiB = kiB("VmRSS:");
    usage.privateKiB = kiB("RssAnon:");
    return usage;
}

void print(const char* when, const Usage& usage) {
    std::printf("%-9s %6ld KiB resident, %5ld KiB private, %3zu descriptors, %3zu threads\n", when,
                usage.residentKiB, usage.privateKiB, usage.descriptors, usage.threads);
}

} // namespace

using StreamTest = System;

TEST_F(StreamTest, everyListenerGetsEveryLineOnceForAsLongAsItListens) {
    constexpr std::size_t listenerCount = 50;
    constexpr std::size_t fastCount = 30; // then slow ones, then 15 that hang up and come back
    constexpr std::size_t burst = 5000;
    writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\nlog4cplus.logcount=1000\n");
    const char* text = std::getenv("QUILLWICK_STREAM_SECONDS");
    const std::chrono::seconds duration(text != nullptr ? std::atoi(text) : 20);

    Daemon daemon;
    std::size_t sent = 0;
    const auto send = [&](std::size_t count) {
        for (; count > 0; --count) {
            char message[240];
            std::snprintf(message, sizeof message, "%0180d %zu", 0, sent++);
            journald->log(3, "test", message);
        }
    };
    send(1);
    ASSERT_TRUE(arrives(" 0"));
    EXPECT_EQ(client({"-f"}), ""); // from here on the log file is kept open
    const Usage start = usageOf(daemon.process().pid());
    Usage peak = start;

    std::vector<std::unique_ptr<Listener>> listeners;
    for (unsigned i = 0; i < listenerCount; ++i)
        listeners.push_back(std::make_unique<Listener>(i < fastCount       ? Kind::fast
                                                       : i < fastCount + 5 ? Kind::slow
                                                                           : Kind::returning,
                                                       i));
    // A listener starts with the newest entry when it first wakes: let each have its first.
    ASSERT_TRUE(eventually(60s, [&] {
        send(1);
        journald->sync();
        return std::all_of(listeners.begin(), listeners.begin() + fastCount,
                           [](const auto& listener) { return listener->next > 0; });
    }));
    const auto begin = Clock::now();
    auto nextSecond = begin;
    for (int second = 0; Clock::now() < begin + duration; ++second) {
        send(second % 60 == 5 || second % 60 == 12 ? burst : 100);
        if (second % 10 == 9)
            EXPECT_EQ(client({"-f"}), "");
        if (second % 7 == 3)
            EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
        const Usage now = usageOf(daemon.process().pid());
        peak = {std::max(peak.residentKiB, now.residentKiB),
                std::max(peak.privateKiB, now.privateKiB),
                std::max(peak.descriptors, now.descriptors), std::max(peak.threads, now.threads)};
        std::this_thread::sleep_until(nextSecond += 1s);
    }
    journald->sync();
    EXPECT_EQ(client({"-f"}), "");
    send(1); // whoever had all of a file that the flush began goes on with the next line
    EXPECT_TRUE(eventually(120s, [&] {
        return std::all_of(listeners.begin(), listeners.begin() + fastCount,
                           [&](const auto& listener) { return listener->next == sent; });
    }));
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        EXPECT_FALSE(listeners[i]->faulty) << i << ' ' << listeners[i]->fault;
        EXPECT_TRUE(i >= fastCount || listeners[i]->next == sent) << i;
    }

    listeners.clear();
    Usage last;
    EXPECT_TRUE(eventually(60s, [&] {
        send(1); // a stream sees that its client has gone with the next entry
        journald->sync();
        last = usageOf(daemon.process().pid());
        return last.threads <= start.threads && last.descriptors <= start.descriptors;
    }));
    std::printf("%zu entries to %zu listeners\n", sent, listenerCount);
    print("at start", start);
    print("peak", peak);
    print("at end", last);
    EXPECT_EQ(daemon.end(), 0);
}
