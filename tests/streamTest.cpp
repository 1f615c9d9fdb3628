// Many clients follow the log of the running daemon through flushes and rolls, and miss nothing.

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/daemon.h"

using namespace testSupport;

namespace {

constexpr std::size_t logSize = 524288;

// The stream's bytes with the newline that each NUL stands for.
std::string asLogText(std::string bytes) {
    std::replace(bytes.begin(), bytes.end(), '\0', '\n');
    return bytes;
}

// One client that follows the log on a thread of its own.
class Listener {
public:
    enum class Kind { fast, slow, returning };

    Listener(Kind kind, unsigned seed) : kind_(kind), thread_([this, seed] { follow(seed); }) {}
    ~Listener() { thread_.join(); }

    std::atomic<std::size_t> received{0};
    // Each is what one connection brought; for the reader once the daemon has ended.
    std::vector<std::string> streams;

private:
    void follow(unsigned seed) {
        std::mt19937 random(seed);
        while (followOnce(random)) {
        }
    }
    // False when there is no daemon any more.
    bool followOnce(std::mt19937& random) {
        const Descriptor socket = request("quillwick -l -g 0");
        if (socket.get() < 0)
            return false;
        std::string& stream = streams.emplace_back();
        const std::size_t leaveAfter =
            kind_ == Kind::returning ? 20000 + random() % 20000 : SIZE_MAX;
        char piece[4096];
        while (stream.size() < leaveAfter) {
            const ssize_t got = recv(socket.get(), piece, sizeof piece, 0);
            if (got <= 0)
                break;
            stream.append(piece, static_cast<std::size_t>(got));
            received += static_cast<std::size_t>(got);
            if (kind_ == Kind::slow) // slower than the log grows, for the length of the run
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
        }
        return true;
    }

    const Kind kind_;
    std::thread thread_;
};

class StreamTest : public System {
protected:
    // All of the log, oldest line first, once the cache is flushed.
    std::string wholeLog() {
        std::string all = logFile();
        for (int index = 1; access(rolled(index).c_str(), F_OK) == 0; ++index)
            all.insert(0, readFile(rolled(index)));
        return all;
    }
    static std::string rolled(int index) {
        return qwk::logFilePath + ("." + std::to_string(index));
    }
};

} // namespace

// QUILLWICK_STREAM_ENTRIES sets how many.
TEST_F(StreamTest, everyListenerGetsEveryLineOnce) {
    writeFile("/etc/quillwick.conf", "log4cplus.logsize=524288\n");
    const char* text = std::getenv("QUILLWICK_STREAM_ENTRIES");
    const std::size_t entries = text != nullptr ? std::stoul(text) : 10000;
    std::vector<std::unique_ptr<Listener>> listeners;
    auto daemon = std::make_unique<Daemon>();
    for (unsigned i = 0; i < 24; ++i) {
        const auto kind = i < 12   ? Listener::Kind::fast
                          : i < 16 ? Listener::Kind::slow
                                   : Listener::Kind::returning;
        listeners.push_back(std::make_unique<Listener>(kind, i));
    }

    std::atomic<bool> over{false};
    std::thread dumping([&] {
        while (!over)
            EXPECT_EQ(client({"-p"}).size(), 512U * 72U);
    });
    std::mt19937 random(7);
    std::size_t sent = 0;
    const auto sendEntries = [&](std::size_t count) {
        for (; count > 0; --count) {
            char line[240];
            std::snprintf(line, sizeof line, "%08zu%0200d", sent++, 0);
            journald->log(3, "test", line);
        }
    };
    const auto fastReceived = [&](std::size_t bytes) {
        return eventually(120s, [&] {
            return std::all_of(listeners.begin(), listeners.begin() + 12,
                               [&](const auto& listener) { return listener->received >= bytes; });
        });
    };
    sendEntries(1);
    ASSERT_TRUE(eventually(10s, [&] { return listeners[0]->received > 0; }));
    // All lines are equally long, so the numbers of lines that end a file are known. No batch may
    // end with one: the empty file that follows would send the streams back by size.
    const std::size_t lineLength = listeners[0]->received;
    const std::size_t linesPerFile = logSize / lineLength + 1;
    const std::size_t capacity = (8192 - 36) / (lineLength - 36 + 15);
    std::size_t flushed = 0;
    while (sent < entries) {
        const std::size_t count = 2 * capacity + random() % (18 * capacity);
        bool endsAFile = false;
        for (std::size_t end = flushed + capacity; end < sent + count; end += capacity)
            endsAFile = endsAFile || end % linesPerFile == 0;
        if (endsAFile || (sent + count) % linesPerFile == 0)
            continue;
        sendEntries(count);
        ASSERT_TRUE(fastReceived(sent * lineLength));
        ASSERT_EQ(client({"-f"}), "");
        flushed = sent;
    }
    over = true;
    dumping.join();
    const std::string whole = wholeLog();
    ASSERT_TRUE(eventually(120s, [&] {
        return std::all_of(listeners.begin(), listeners.begin() + 16, [&](const auto& listener) {
            return listener->received >= whole.size();
        });
    }));
    EXPECT_EQ(daemon->end(), 0);

    EXPECT_EQ(whole.size(), sent * lineLength);
    EXPECT_EQ(access(rolled(3).c_str(), F_OK), 0);
    for (std::size_t i = 0; i < sent; ++i) {
        const unsigned long number = std::stoul(whole.substr(i * lineLength + 1, 8), nullptr, 16);
        ASSERT_EQ(number, i);
        ASSERT_EQ(std::stoul(whole.substr((i + 1) * lineLength - 209, 8)), i);
    }
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        for (const std::string& stream : listeners[i]->streams) {
            if (i < 16) {
                // The line of the shutdown's wake-up may be the last to arrive.
                EXPECT_EQ(asLogText(stream).compare(0, whole.size(), whole), 0) << i;
            } else if (!stream.empty()) {
                EXPECT_EQ(stream[0], '[') << i;
                EXPECT_NE(whole.find(asLogText(stream).substr(0, 20000)), std::string::npos) << i;
            }
        }
    }
}
