// What a client of the log receives, and from where on it goes on when it could take no more.

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <fstream>
#include <sys/socket.h>
#include <thread>

#include "support/childProcess.h"
#include "support/logFixture.h"
#include "support/paths.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;
using Held = std::unique_lock<qwk::LogSink>;

namespace {

constexpr std::size_t logSize = 524288;
constexpr int smallRoom = 1; // the kernel makes some 4 KiB of it

std::string logFile(int index) {
    return qwk::logFilePath + (index == 0 ? ""s : "." + std::to_string(index));
}

std::string line(std::uint32_t id, std::size_t length) {
    return qwk::sequenceTag(id) + std::string(length - 10, 'x');
}

// The stream's bytes with the newline that each NUL stands for.
std::string asLogText(std::string bytes) {
    std::replace(bytes.begin(), bytes.end(), '\0', '\n');
    return bytes;
}

struct Sockets {
    explicit Sockets(int room = 0) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        client = Descriptor(ends[0]);
        server = Descriptor(ends[1]);
        if (room != 0)
            EXPECT_EQ(setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    }
    // What is there already, up to `most` bytes.
    std::string receive(std::size_t most = SIZE_MAX) {
        std::string text;
        char piece[65536];
        for (ssize_t got = 1; got > 0 && text.size() < most;) {
            got = recv(client.get(), piece, std::min(sizeof piece, most - text.size()), 0);
            text.append(piece, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        }
        return text;
    }
    Descriptor client, server;
};

void endStreams(qwk::Logger& logger) {
    const Held held(logger);
    logger.endStreams();
}

// A client's stream on a thread of its own. When it goes, all streams of the logger end.
struct Stream {
    Stream(qwk::Logger& source, int maxsize, bool listen, int room = 0)
        : sockets(room), logger(source), thread([this, maxsize, listen] {
              EXPECT_EQ(logger.streamLogs(maxsize, listen, sockets.server.get()), 0);
              ended = true;
          }) {}
    ~Stream() {
        sockets.client = Descriptor();
        endStreams(logger);
        thread.join();
    }
    // Takes up to `most` bytes at a time until the condition holds.
    template<typename Condition>
    bool receivesUntil(Condition condition, std::size_t most = SIZE_MAX) {
        return eventually(
            60s, [&] { return received += sockets.receive(most), condition(); });
    }
    bool receives(const std::string& text) {
        return receivesUntil([&] { return received.size() >= text.size(); }) &&
               asLogText(received) == text;
    }
    bool begins() {
        return receivesUntil([&] { return !received.empty(); }, 1);
    }
    bool ends(std::size_t most = 0) {
        return receivesUntil([&] { return ended.load(); }, most);
    }

    Sockets sockets;
    std::string received;
    std::atomic<bool> ended{false};
    qwk::Logger& logger;
    std::thread thread;
};

// What fill() makes, and the sources to be chosen there for so many bytes: of the newest ones, or
// of those that the client has of line `id` and what follows.
struct Choice {
    const char* name;
    std::vector<std::size_t> entries;
    std::vector<int> fileLines;
    int bytes;
    const char* expected;
    std::uint32_t id = 0;
};

class DeliveryTest : public LogTest {
protected:
    // For those who hold the lock.
    void addHeld(std::uint32_t id, const std::string& message) {
        logger.addToCache(id, 6, 0, message);
        recent.emplace_back(id, message);
        const std::string text = logger.formatLine(id, 6, 0, message) + '\n';
        recentSize += text.size();
        whole += text;
    }
    void clearHeld() {
        logger.clearCache();
        recent.clear();
        recentSize = 0;
    }
    void flushHeld() {
        for (const auto& [id, message] : recent)
            logger.sink(id, 6, 0, message);
        clearHeld();
    }
    void add(std::uint32_t id, const std::string& message) {
        const Held held(logger);
        addHeld(id, message);
    }
    void flush() {
        const Held held(logger);
        flushHeld();
    }
    // Adds the entry, as the only recent one, until the stream has begun.
    bool begins(Stream& stream, std::uint32_t id) {
        return stream.receivesUntil([&] {
            if (!stream.received.empty())
                return true;
            const Held held(logger);
            clearHeld();
            whole.clear();
            addHeld(id, "first");
            return false;
        });
    }
    // Recent entries of these lengths, numbered from 0x200 on, and log files of so many lines of
    // 100 bytes, numbered from 0x100, 0x80, 0x40 and 0 on; -1 for no file. Returns all text.
    std::string fill(const std::vector<std::size_t>& entries, std::vector<int> fileLines) {
        const Held held(logger);
        clearHeld();
        whole.clear();
        for (std::uint32_t i = 0; i < entries.size(); ++i)
            addHeld(0x200 + i, std::string(entries[i] - 35, 'x'));
        std::string all = whole.substr(0, std::max<std::size_t>(whole.size(), 1) - 1);
        fileLines.resize(4, -1);
        std::uint32_t first = 0x100;
        for (int index = 0; index < 4; ++index, first = first / 2 & ~0x20U) {
            const int lines = fileLines[static_cast<std::size_t>(index)];
            std::string text;
            for (int i = 0; i < lines; ++i)
                text += line(first + static_cast<std::uint32_t>(i), 99) + '\n';
            std::filesystem::remove(logFile(index));
            if (lines >= 0)
                writeFile(logFile(index), text);
            all.insert(0, text);
        }
        return all;
    }
    // The sources that were found, newest first.
    template<typename Find>
    std::string found(Find find) {
        std::vector<qwk::LogFile> files;
        const Held held(logger);
        find(files);
        std::string text;
        for (const qwk::LogFile& file : files)
            text += (text.empty() ? "" : ", ") +
                    (file.name.empty() ? "buffer"
                                       : file.name.substr(std::strlen("/var/logperm/larkspur."))) +
                    ' ' + std::to_string(static_cast<std::uint32_t>(file.off)) + '/' +
                    std::to_string(static_cast<std::uint32_t>(file.size));
        return text;
    }
    std::string afterId(std::uint32_t id, int off) {
        return found([&](auto& files) { logger.findFilesAfterId(id, off, 150, files); });
    }
    void begin(int streamOffset = 0) {
        state = {};
        state.socket = sockets.server.get();
        state.count_total = state.count_id = state.lineStart = streamOffset;
        state.lineHead[0] = '\n';
    }
    int send(const std::string& text) {
        return logger.sendBuffer(state, text.data(), static_cast<int>(text.size()), wouldBlock);
    }

    std::vector<std::pair<std::uint32_t, std::string>> recent;
    std::size_t recentSize = 0; // in the log file
    std::string whole;          // every line added
    Sockets sockets;
    qwk::SendState state{};
    bool wouldBlock = false;
};

} // namespace

TEST_F(DeliveryTest, theResumePointIsTheFirstUnsentByte) {
    Random random;
    sockets = Sockets(smallRoom);
    // Stream offsets that pass the ends of both halves of their range, one of them with a line.
    const int starts[] = {0, INT_MAX - 4000, -4000, -20};
    for (std::size_t round = 0; round < 40; ++round) {
        begin(starts[round % 4]);
        std::string text = line(0, 19) + '\n';
        for (std::uint32_t id = 1; id <= 400; ++id) {
            text += line(id, 10 + random.upTo(60));
            if (random.oneIn(4))
                text += "\n" + std::string(random.upTo(20), '-');
            text += random.oneIn(3) ? '\0' : '\n';
        }
        std::string received;
        for (std::size_t sent = 0; sent < text.size() && !HasFailure();) {
            std::size_t offered = sent == 0 ? 20 : 10 + random.upTo(random.oneIn(4) ? 9000 : 60);
            if (text.size() - sent < offered + 10) // every source ends with a line
                offered = text.size() - sent;
            const int done = send(text.substr(sent, offered));
            ASSERT_GE(done, 0);
            EXPECT_EQ(wouldBlock, static_cast<std::size_t>(done) < offered);
            sent += static_cast<std::size_t>(done);
            EXPECT_TRUE(sent == 0 || state.count_total != 0);
            const std::size_t place = text.find(qwk::sequenceTag(state.id));
            EXPECT_TRUE(place == 0 || asLogText(text)[place - 1] == '\n');
            const auto had = static_cast<std::uint32_t>(state.count_total) -
                             static_cast<std::uint32_t>(state.count_id);
            EXPECT_EQ(place + had, sent);
            if (random.oneIn(wouldBlock ? 1 : 5))
                received += sockets.receive(random.upTo(3000));
        }
        EXPECT_TRUE(received + sockets.receive() == text);
    }
}

TEST_F(DeliveryTest, linesAreRecognisedAcrossCalls) {
    struct Case {
        const char* name;
        std::vector<std::string> calls;
        std::uint32_t id;
        int lineAt; // in the stream
        const char* head;
    };
    const std::string first = "[0000002a] x\n";
    const Case cases[] = {
        {"the first line", {"[0000002a]"}, 0x2A, 0, ""},
        {"too short to tell", {"[0000002a"}, 0, 0, "\n"},
        {"no number", {first + "[0000002g] y"}, 0x2A, 0, ""},
        {"cut behind the number", {first + "[0000002b"}, 0x2B, 13, ""},
        {"cut by the end of a call", {first + "[0000", "002b] y"}, 0x2B, 13, ""},
        {"cut, and no number", {first + "[0000", "002g] y"}, 0x2A, 0, ""},
        {"cut behind a NUL", {"[0000002a] x\0[0000"s, "002b] y"}, 0x2A, 0, ""},
        {"ended by a NUL", {first, "[0000002b] y\0"s}, 0x2B, 13, "\n"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        begin();
        int total = 0;
        for (const std::string& call : one.calls)
            total += send(call);
        EXPECT_EQ(state.id, one.id);
        EXPECT_EQ(state.count_id, one.lineAt);
        EXPECT_EQ(state.count_total, total);
        EXPECT_STREQ(state.lineHead, one.head);
    }
}

TEST_F(DeliveryTest, aFullSocketIsNoFailureAndADeadOneIs) {
    begin();
    while (!wouldBlock)
        ASSERT_GE(send(std::string(1000, 'x')), 0);
    begin();
    EXPECT_EQ(send("[0000002a] x"), 0);
    EXPECT_TRUE(wouldBlock);
    EXPECT_EQ(state.id, 0x2AU);
    EXPECT_EQ(state.count_total, 0);
    EXPECT_EQ(logger.sendBuffer(state, "x", -1, wouldBlock), 0);
    EXPECT_FALSE(wouldBlock);
    SyslogCapture syslog;
    sockets.client = Descriptor();
    EXPECT_EQ(send("[0000002b] y"), -1);
    state.socket = 9999;
    EXPECT_EQ(send("[0000002b] y"), -1);
    EXPECT_EQ(state.id, 0x2AU);
    const auto said = syslog.take();
    ASSERT_EQ(said.size(), 2U);
    EXPECT_EQ(said[0].text, "Connection closed by peer.");
    EXPECT_EQ(said[1].text, "Sending failed (Bad file descriptor).");
}

TEST_F(DeliveryTest, sourcesAreSentOldestFirst) {
    const std::string all = fill({40}, {2, 3});
    char buffer[64]; // a file takes several reads
    begin();
    state.buffer = buffer;
    state.bufferSize = sizeof buffer;
    const auto sends = [&](const std::vector<qwk::LogFile>& list) {
        const Held held(logger);
        return logger.sendFiles(state, list, wouldBlock);
    };
    EXPECT_EQ(sends({{0, 0, ""}, {0, 0, logFile(0)}, {0, 0, logFile(1)}}), 0);
    EXPECT_EQ(sockets.receive(), all + '\0');
    EXPECT_EQ(sends({{41, 0, ""}, {40, 0, ""}, {250, 0, logFile(1)}, {9999, 0, logFile(0)}}), 0);
    EXPECT_EQ(sockets.receive(), std::string(49, 'x') + "\n\0"s);
    EXPECT_EQ(sends({{0, 0, ""}, {0, 0, "/missing"}, {299, 0, logFile(1)}}), -1);
    EXPECT_EQ(sockets.receive(), "\n");
    wouldBlock = true;
    EXPECT_EQ(sends({}), 0);
    EXPECT_FALSE(wouldBlock);
}

TEST_F(DeliveryTest, sourcesAreChosenBySize) {
    const Choice cases[] = {
        {"empty log", {}, {}, 1000, ""},
        {"no bytes", {100}, {10}, 0, ""},
        {"the buffer's length", {100}, {10}, 100, "buffer 0/100"},
        {"one byte less", {100}, {10}, 99, ""},
        {"cut at a newline", {40, 59}, {10}, 60, "buffer 41/100"},
        {"cut at a line start", {40, 59}, {10}, 59, ""},
        {"newline", {100}, {10, 50, 10}, 3001, "buffer 0/100, log 0/1000, log.1 3100/5000"},
        {"line start", {100}, {10, 50, 10}, 3000, "buffer 0/100, log 0/1000, log.1 3200/5000"},
        {"cut in a file's last line", {}, {10}, 99, ""},
        {"all but a byte", {}, {10, 2}, 1199, "log 0/1000, log.1 100/200"},
        {"all", {}, {10, 2, 0}, 1200, "log 0/1000, log.1 0/200, log.2 0/0"},
        {"a copy is missing", {100}, {10, -1, 10}, 9000, "buffer 0/100, log 0/1000"},
        {"no current file", {100}, {-1, 10}, 9000, "buffer 0/100"},
        {"just rolled", {100}, {0, 2}, 200, "buffer 0/100, log 0/0"},
    };
    for (const Choice& one : cases) {
        fill(one.entries, one.fileLines);
        EXPECT_EQ(found([&](auto& files) { logger.findFilesBySize(one.bytes, files); }),
                  one.expected)
            << one.name;
    }
}

TEST_F(DeliveryTest, streamsGoOnBehindWhatTheyHaveSent) {
    const char bySize[] = "buffer 100/199"; // up to 150 bytes
    const Choice cases[] = {
        {"all is sent", {99, 99}, {10}, 100, "", 0x201},
        {"a line was added", {99, 99, 99}, {10}, 100, "buffer 200/299", 0x201},
        {"only the NUL is left", {99, 99}, {10}, 99, "buffer 199/199", 0x201},
        {"flushed", {99, 99}, {10}, 100, "buffer 0/199", 0x109},
        {"flushed while sent", {99, 99}, {10}, 60, "buffer 0/199, log 960/0", 0x109},
        {"flushed in part", {99, 99}, {10}, 140, "buffer 40/199", 0x109},
        {"one byte left", {99, 99}, {10}, 298, "buffer 198/199", 0x109},
        {"no byte left", {99, 99}, {10}, 299, bySize, 0x109},
        {"two back", {99}, {9, 9, 9}, 9, "buffer 0/99, log 0/0, log.1 0/0, log.2 509/0", 0x45},
        {"empty buffer", {}, {9, 9}, 99, "log 0/0, log.1 99/0", 0x80},
        {"rolled", {99, 99}, {9, 10}, 100, "buffer 0/199, log 0/900", 0x89},
        {"rolled in between", {99, 99}, {9, 10}, 350, "buffer 0/199, log 150/900", 0x88},
        {"beyond the next file", {99, 99}, {9, 10}, 1000, bySize, 0x89},
        {"just rolled", {99, 99}, {0, 10}, 100, bySize, 0x89},
        {"beyond the only file", {}, {10}, 500, "log 1400/0", 0x109},
        {"no current file", {99, 99}, {-1, 10}, 0, bySize, 0x85},
        {"the line is gone", {99, 99}, {10, 10}, 10, bySize, 0x1FF},
        {"a copy is missing", {99, 99}, {10, -1, 10}, 0, bySize, 0x45},
    };
    for (const Choice& one : cases) {
        fill(one.entries, one.fileLines);
        EXPECT_EQ(afterId(one.id, one.bytes), one.expected) << one.name;
    }
    fill({}, {});
    add(1, "about [00000002]");
    add(2, "next");
    EXPECT_EQ(afterId(2, 0), "buffer 41/91"); // where the number stands first
}

TEST_F(DeliveryTest, everyMaxsizeGivesWholeLines) {
    const std::string all = fill({40, 59}, {3, 2});
    for (std::size_t maxsize = 0; maxsize <= all.size() + 1; ++maxsize) {
        std::size_t start = all.size() - std::min(maxsize, all.size());
        if (start != 0 && start != 200 && start != 500) // where no source begins
            start = std::min(all.find('\n', start), all.size() - 1) + 1;
        Sockets client;
        logger.streamLogs(static_cast<int>(maxsize), false, client.server.get());
        EXPECT_EQ(client.receive(), start == all.size() ? "" : all.substr(start) + '\0') << maxsize;
    }
}

TEST_F(DeliveryTest, filesBeyond2GiBAreSent) {
    writeFile(logFile(0), line(0, 20) + '\n');
    std::filesystem::resize_file(logFile(0), 3000000000);
    const std::string last = line(2, 99) + '\n';
    std::ofstream(logFile(0), std::ios::app) << '\n' << line(1, 99) << '\n' << last;
    logger.streamLogs(150, false, sockets.server.get());
    EXPECT_EQ(sockets.receive(), last);
    EXPECT_EQ(afterId(2, 50), "log 3000000151/0");
    add(3, "next");
    EXPECT_EQ(afterId(2, 100), "buffer 0/39");
}

TEST_F(DeliveryTest, everyListenerGetsEveryLineOnceThroughFlushesAndRolls) {
    Random random;
    add(0, "first");
    Stream eager(logger, INT_MAX, true);
    Stream slow(logger, INT_MAX, true, smallRoom);
    Stream late(logger, INT_MAX, true, smallRoom);
    for (std::uint32_t id = 1; id < 1500; ++id) {
        std::string message(random.upTo(3000), 'x');
        if (random.oneIn(8))
            message += '\n' + std::string(130 + random.upTo(500), '-');
        Held held(logger);
        const std::uintmax_t before = std::filesystem::file_size(logFile(0)) + recentSize;
        addHeld(id, message);
        // Where a batch rolls the file, neither may its last line do so, nor may a listener have
        // that line already: it would stand at the end of all files, which counts as lost.
        const bool rolls = std::filesystem::file_size(logFile(0)) + recentSize > logSize;
        if (!rolls && random.oneIn(10)) {
            held.unlock();
            ASSERT_TRUE(eager.receives(whole));
            held.lock();
        }
        if (random.oneIn(10) && (!rolls || before > logSize))
            flushHeld();
        held.unlock();
        slow.received += slow.sockets.receive(random.upTo(2000));
    }
    EXPECT_TRUE(std::filesystem::exists(logFile(3)));
    for (Stream* stream : {&eager, &slow, &late})
        EXPECT_TRUE(stream->receives(whole)) << stream->received.size();
}

TEST_F(DeliveryTest, aRollBehindTheLastLineSentLeadsToTheNewestBytes) {
    Stream none(logger, 0, true);
    Stream few(logger, 1000, true);
    Stream all(logger, 1 << 20, true);
    Stream* const streams[] = {&none, &few, &all};
    ASSERT_TRUE(begins(none, 7) && few.begins() && all.begins());
    for (const std::uint32_t id : {8U, 9U}) {
        add(id, std::string(300000, 'x'));
        for (Stream* stream : streams)
            ASSERT_TRUE(stream->receives(whole));
        flush();
    }
    ASSERT_EQ(std::filesystem::file_size(logFile(0)), 0U);
    const std::string rolled = whole;
    add(10, "next");
    EXPECT_TRUE(few.receives(whole));
    EXPECT_TRUE(all.receives(rolled + whole));
    flush();
    add(11, "last");
    EXPECT_TRUE(none.receives(whole)); // no byte fits until the file has a line again
    EXPECT_TRUE(few.receives(whole));
    EXPECT_TRUE(all.receives(rolled + whole));
}

TEST_F(DeliveryTest, theBacklogEndsWithMaxsize) {
    fill({}, {900});
    Stream stream(logger, 100000, false, smallRoom);
    ASSERT_TRUE(stream.begins());
    add(0x1000, std::string(1000000, 'x'));
    const std::string all = readFile(logFile(0)) + whole;
    EXPECT_TRUE(stream.ends(1000));
    stream.received += stream.sockets.receive();
    EXPECT_GE(stream.received.size(), 100000U);
    EXPECT_LT(stream.received.size(), all.size() / 2);
    EXPECT_EQ(stream.received, all.substr(0, stream.received.size()));
}

TEST_F(DeliveryTest, streamsOfClientsThatHangUpEnd) {
    SyslogCapture syslog;
    Stream listening(logger, 100, true);
    add(0, "first");
    EXPECT_TRUE(listening.receives(whole));
    listening.sockets.client = Descriptor();
    fill({}, {900});
    Stream blocked(logger, 100000, false, smallRoom);
    EXPECT_TRUE(blocked.begins());
    blocked.sockets.client = Descriptor();
    EXPECT_TRUE(blocked.ends());
    EXPECT_TRUE(syslog.waitFor("Connection closed by peer.", 60s));
    EXPECT_FALSE(listening.ended); // it finds out with the next entry,
    add(0, "numbered anew");       // even one with the number that it saw last
    EXPECT_TRUE(listening.ends());
}

TEST_F(DeliveryTest, endedStreamsEndWhereverTheyAre) {
    qwk::Logger other;
    Stream quiet(other, 100, true);
    endStreams(other);
    EXPECT_TRUE(quiet.ends());
    Stream waiting(logger, 0, true);
    ASSERT_TRUE(begins(waiting, 0)); // be it the number seen last from the start
    EXPECT_TRUE(waiting.receives(whole));
    endStreams(logger);
    EXPECT_TRUE(waiting.ends());
    Stream later(logger, 100, true);
    EXPECT_TRUE(later.ends());
}
