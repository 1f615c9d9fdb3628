// The bytes that a client of the log receives, and where it goes on after it could take no more.

#include <algorithm>
#include <climits>
#include <fstream>
#include <future>
#include <sys/socket.h>

#include "logger/sequenceNumber.h"
#include "support/logFixture.h"
#include "support/paths.h"
#include "support/syslogCapture.h"

using namespace testSupport;
using namespace std::literals;
using LogLock = std::lock_guard<qwk::LogSink>;

namespace {

constexpr int smallRoom = 1; // the kernel makes some 4 KiB of it
constexpr int largeRoom = 200000;

// A log file of so many lines of 25 bytes.
std::string writeLines(int index, std::uint32_t first, int count) {
    std::string text;
    for (; count > 0; --count)
        text += qwk::sequenceTag(first++) + std::string(14, 'x') + '\n';
    writeFile(logFile(index), text);
    return text;
}

struct Sockets {
    explicit Sockets(int room = largeRoom) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        client = Descriptor(ends[0]);
        server = Descriptor(ends[1]);
        EXPECT_EQ(setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    }
    // The bytes that have arrived, up to `most`.
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

// A client's stream on a thread of its own. Its destructor ends all streams of the logger.
struct Stream : Sockets {
    Stream(qwk::Logger& source, int maxsize, bool listen, int room = largeRoom)
        : Sockets(room), logger(source),
          result(std::async(std::launch::async, [this, maxsize, listen] {
              return logger.streamLogs(maxsize, listen, server.get());
          })) {}
    ~Stream() {
        client = Descriptor();
        endAll();
    }
    void endAll() {
        const LogLock held(logger);
        logger.endStreams();
    }
    // Takes up to `most` bytes at a time until the condition holds.
    bool takesUntil(const std::function<bool()>& condition, std::size_t most = SIZE_MAX) {
        const auto holds = [&] { return received += receive(most), condition(); };
        return eventually(60s, holds);
    }
    bool receives(const std::string& text) {
        const bool enough = takesUntil([&] { return received.size() >= text.size(); });
        std::replace(received.begin(), received.end(), '\0', '\n'); // as in the log file
        return enough && received == text;
    }
    bool ends(std::size_t most = 0) {
        return takesUntil([&] { return result.wait_for(0s) == std::future_status::ready; }, most) &&
               result.get() == 0;
    }

    std::string received;
    qwk::Logger& logger;
    std::future<int> result;
};

// A place of the log text, and the answers that clients get from it.
struct Layout {
    std::vector<int> lines;         // recent ones, then 25 bytes each in the files, newest first
    std::vector<std::size_t> sizes; // at which a request gives one line more
    // From each line on, how many bytes a client may have for its place to be known.
    std::vector<std::pair<std::uint32_t, std::size_t>> places;
};

class DeliveryTest : public LogTest {
protected:
    void add(std::uint32_t id, const std::string& message) {
        const LogLock held(logger);
        logger.addToCache(id, 6, 0, message);
        whole += logger.formatLine(id, 6, 0, message) + '\n';
    }
    void clear() {
        const LogLock held(logger);
        logger.clearCache();
        whole.clear();
    }
    std::string arrange(const Layout& layout) {
        clear();
        for (int i = 0; i < layout.lines[0]; ++i)
            add(0x200U + static_cast<std::uint32_t>(i), "recent");
        std::string all = whole;
        if (!all.empty())
            all.back() = '\0';
        int index = 0;
        for (auto lines = layout.lines.begin() + 1; lines != layout.lines.end(); ++lines, ++index)
            all.insert(0, writeLines(index, 0x100U >> index, *lines));
        std::filesystem::remove(logFile(index)); // files after a missing one do not count
        writeLines(index + 1, 0x10, 2);
        return all;
    }
    std::string deliver(int maxsize) {
        EXPECT_EQ(logger.streamLogs(maxsize, false, sockets.server.get()), 0);
        return sockets.receive();
    }
    void begin(int at = 0) {
        state = {buffer, sizeof buffer, sockets.server.get(), at, at, 0, at, {}};
        state.lineHead[0] = at == 0 ? '\0' : '\n';
    }
    int send(const std::string& text) {
        return logger.sendBuffer(state, text.data(), static_cast<int>(text.size()), wouldBlock);
    }
    // The next answer to a client that has so many bytes from line `id` on; if the log no longer
    // has that line, the answer to a request for 60 bytes.
    std::string resume(std::uint32_t id, std::size_t had) {
        const LogLock held(logger);
        std::vector<qwk::LogFile> files{{0, 0, "/left/over"}};
        logger.findFilesAfterId(id, static_cast<int>(had), 60, files);
        EXPECT_EQ(logger.sendFiles(state, files, wouldBlock), 0);
        return sockets.receive();
    }

    std::string whole; // every line added
    Sockets sockets;
    char buffer[64]; // a file takes several reads
    qwk::SendState state{};
    bool wouldBlock = false;
};

} // namespace

// The line that a stream has reached from such an offset, and how many bytes it has of that line
// and the following ones, after calls that offered these bytes.
TEST_F(DeliveryTest, theResumePointIsKnownAcrossCallsAndWrappingOffsets) {
    const std::tuple<int, std::vector<std::string>, std::uint32_t, std::uint32_t> cases[] = {
        {0, {"[0000002a"}, 0, 9},
        {0, {"[0000002a] x\n[0000002b"}, 0x2B, 9},
        {0, {"[0000002a] x\n[00000029] x\n[0000002b] y"}, 0x2B, 12},
        {0, {"[0000002a] x\n[0000", "002b] y", "002c] z"}, 0x2B, 19},
        {0, {"[0000002a] x\n[0000", "002g] y"}, 0x2A, 25},
        {0, {"[0000002a] x\0[0000"s, "002b] y"}, 0x2A, 25},
        {0, {"[0000002a] x\0"s, "[0000002b] y"}, 0x2B, 12},
        {INT_MAX - 5, {"[0000002a] x", "[0000002b] y"}, 0x2A, 24},
        {-13, {"[0000002a] x\n"}, 0x2A, 13}, // an offset of 0 means that nothing was sent
        {-13, {"[0000002a] x\n", "[0000002b] y"}, 0x2B, 12},
        {-12, {"[0000002a] x", "[0000002b] y"}, 0x2A, 24}};
    for (const auto& [start, calls, id, had] : cases) {
        SCOPED_TRACE(calls.back());
        begin(start);
        for (const std::string& call : calls)
            EXPECT_EQ(send(call), static_cast<int>(call.size()));
        EXPECT_EQ(state.id, id);
        EXPECT_EQ(static_cast<std::uint32_t>(state.count_id) + had,
                  static_cast<std::uint32_t>(state.count_total));
    }
}

TEST_F(DeliveryTest, aFullSocketIsNoFailureAndAMissingFileOrClientIs) {
    begin();
    for (const char* unreadable : {"/missing", "/tmp"})
        EXPECT_EQ(logger.sendFiles(state, {{0, 0, ""}, {0, 0, unreadable}}, wouldBlock), -1);
    EXPECT_EQ(logger.sendFiles(state, {{99, 0, ""}}, wouldBlock), 0); // beyond the recent entries
    EXPECT_EQ(sockets.receive(), "");
    while (!wouldBlock)
        ASSERT_GE(send(std::string(1000, 'x')), 0);
    begin();
    EXPECT_EQ(send("[0000002a] x"), 0);
    EXPECT_TRUE(wouldBlock);
    EXPECT_EQ(state.id, 0x2AU);
    EXPECT_EQ(state.count_total, 0);
    SyslogCapture syslog;
    sockets.client = Descriptor();
    EXPECT_EQ(send("[0000002b] y"), -1);
    EXPECT_EQ(logger.sendFiles(state, {{0, 0, "/etc/machine-id"}}, wouldBlock), -1);
    state.socket = 9999;
    EXPECT_EQ(send("[0000002b] y"), -1);
    EXPECT_EQ(state.id, 0x2AU);
    EXPECT_TRUE(syslog.waitFor("Connection closed by peer.", 60s));
    EXPECT_TRUE(syslog.waitFor("Sending failed (Bad file descriptor).", 60s));
}

TEST_F(DeliveryTest, everySizeGivesWholeLinesAndEveryPlaceWhatFollows) {
    constexpr std::size_t always = SIZE_MAX;
    const Layout layouts[] = {
        {{0}, {}, {{0x200, 0}}},
        {{1}, {41}, {{0x200, always}, {0x201, 0}}},
        {{2, 3, 2},
         {42, 83, 109, 134, 158, 184, 208},
         {{0x200, always}, {0x201, always}, {0x101, 133}, {0x81, 100}, {0x40, 0}}},
        {{1, 0, 2, 0, 4},
         {41, 67, 91, 117, 142, 167, 191},
         {{0x200, always}, {0x101, 0}, {0x81, 25}, {0x21, 75}, {0x11, 0}}},
        {{0, 2, 2, 3},
         {26, 50, 76, 100, 126, 151, 175},
         {{0x101, always}, {0x81, 75}, {0x40, 125}}}};
    begin();
    for (const Layout& layout : layouts) {
        SCOPED_TRACE(testing::PrintToString(layout.sizes));
        const std::string all = arrange(layout);
        const auto newest = [&](std::size_t most) {
            std::size_t start = all.size();
            for (const std::size_t size : layout.sizes)
                start = size <= most ? all.rfind('[', start - 1) : start;
            return all.substr(start);
        };
        for (std::size_t most = 0; most < 300; ++most)
            EXPECT_EQ(deliver(static_cast<int>(most)), newest(most)) << most;
        for (const auto& [id, limit] : layout.places)
            for (std::size_t had = 0; had < 200; ++had) {
                const std::size_t place = all.find(qwk::sequenceTag(id)) + had;
                EXPECT_EQ(resume(id, had),
                          had < limit ? all.substr(std::min(place, all.size())) : newest(60))
                    << id << ' ' << had;
            }
    }
}

TEST_F(DeliveryTest, recentEntriesAreSeparatedByOneNewline) {
    const std::string head = "[00000001] 1970-01-01 00:00:00.000 ";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, ""},
        {{"one", "two"}, head + "one\n" + head + "two\0"s},
        {{"one\n", "two\n\n", ""}, head + "one\n" + head + "two\n\n" + head + "\0"s}};
    setenv("TZ", "UTC0", 1);
    bool isFilled = false;
    for (const auto& [messages, text] : cases) {
        clear();
        EXPECT_EQ(logger.isCacheFilled(), isFilled); // once and for all
        isFilled = !messages.empty();
        for (const std::string& message : messages)
            add(1, message);
        EXPECT_EQ(deliver(4096), text);
    }
    clear();
    add(1, "ends with a newline\n");
    EXPECT_EQ(deliver(1), ""); // no line starts there
}

TEST_F(DeliveryTest, filesBeyond2GiBAreSent) {
    const std::string lines = writeLines(0, 0, 3);
    std::filesystem::resize_file(logFile(), 25);
    std::filesystem::resize_file(logFile(), 3000000000);
    std::ofstream(logFile(), std::ios::app) << '\n' << lines.substr(25);
    EXPECT_EQ(deliver(60), lines.substr(25));
    begin();
    EXPECT_EQ(resume(2, 20), lines.substr(70));
    add(3, "next");
    EXPECT_EQ(resume(2, 25 + 20), whole.substr(20, whole.size() - 21) + '\0');
}

TEST_F(DeliveryTest, theBacklogEndsWithMaxsizeOrItsClient) {
    SyslogCapture syslog;
    const std::string file = writeLines(0, 0, 3600);
    Stream stream(logger, 100000, false, smallRoom), gone(logger, 100000, false, smallRoom);
    for (Stream* begun : {&stream, &gone})
        ASSERT_TRUE(begun->takesUntil([&] { return !begun->received.empty(); }, 1));
    gone.client = Descriptor();
    EXPECT_TRUE(gone.ends());
    EXPECT_TRUE(syslog.waitFor("Connection closed by peer.", 60s));
    add(0x2000, std::string(1000000, 'x'));
    EXPECT_EQ(stream.result.wait_for(1100ms), std::future_status::timeout); // it polls on
    EXPECT_TRUE(stream.ends(1000));
    stream.received += stream.receive();
    EXPECT_GE(stream.received.size(), 100000U);
    EXPECT_LT(stream.received.size(), 500000U);
    EXPECT_EQ(stream.received, (file + whole).substr(0, stream.received.size()));
}

TEST_F(DeliveryTest, listenersGoOnWithTheNewestBytesUntilTheyHangUpOrAreTold) {
    Stream few(logger, 100, true), all(logger, 1000, true), gone(logger, 1000, true);
    Stream slow(logger, 1000, true, smallRoom);
    add(7, "first");
    for (Stream* stream : {&few, &all, &gone, &slow})
        ASSERT_TRUE(stream->receives(whole));
    gone.client = Descriptor();
    const std::string first = whole;
    clear();
    add(8, std::string(200, 'x'));
    EXPECT_TRUE(all.receives(first + whole));
    EXPECT_TRUE(gone.ends());
    const std::size_t tooLong = whole.size();
    add(9, "next");
    add(0x10000, "last");
    EXPECT_TRUE(few.receives(first + whole.substr(tooLong)));
    EXPECT_TRUE(all.receives(first + whole) && slow.receives(first + whole));
    add(0x10001, std::string(60000, 'x')); // more than the small room, and no entry after it
    EXPECT_TRUE(slow.receives(first + whole));
    Stream none(logger, 0, true);
    EXPECT_TRUE(none.takesUntil([&] {
        clear();
        add(0x10000, "numbered as the one before");
        return !none.received.empty();
    }));
    EXPECT_TRUE(none.receives(whole));
    none.endAll();
    Stream later(logger, 0, true);
    EXPECT_TRUE(few.ends() && all.ends() && none.ends() && later.ends());
}
