// The FRAM cache on a chip: what it stores, byte by byte, and what each operation does in each
// state.

#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <thread>
#include <utility>

#include "support/board.h"

using namespace testSupport;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<Line>;

const Bytes emptyHeaderNext42 = {0x68, 0x64, 0x72, 0x31, 0x00, 0x12, 0x00, 0x24, 0x00,
                                 0x00, 0x00, 0x00, 0x00, 0x2A, 0xE3, 0x9F, 0x6D, 0x09};
const Bytes oneEntryHeader = {0x68, 0x64, 0x72, 0x31, 0x00, 0x12, 0x00, 0x38, 0x00,
                              0x01, 0x00, 0x00, 0x00, 0x01, 0xD2, 0x3D, 0x4B, 0x43};
const Bytes helloRecord = {0x6C, 0x6F, 0x67, 0x31, 0x00, 0x14, 0x06, 0x00, 0x06, 0x0A,
                           0x24, 0x18, 0x1E, 0x40, 0x00, 0x68, 0x65, 0x6C, 0x6C, 0x6F};
constexpr std::uint64_t helloTime = 1700000000000000;

class EepromTest : public Board {
protected:
    void useHeaders(const Bytes& first, const Bytes& second) {
        poke(0, first);
        poke(18, second);
    }
    // A cache with such headers, and nothing to load.
    void useCache(const qwk::framLayout::Header& header = {36, 0, 0}) {
        const auto block = qwk::framLayout::encodeHeader(header);
        useHeaders({block.begin(), block.end()}, {block.begin(), block.end()});
        sink.filled = true;
        sink.written.clear();
        sink.recent.clear();
        said();
    }
    Lines flushed() {
        sink.written.clear();
        flush();
        return sink.written;
    }
    // The diagnostics since the last call, each with a bar behind it.
    std::string told() {
        std::string all;
        for (const std::string& text : said())
            all += text + '|';
        return all;
    }
};

} // namespace

TEST_F(EepromTest, anEntryStandsInTheChipAsDocumented) {
    useCache();
    append("hello", 6, helloTime);
    EXPECT_EQ(bytes(0, 18), oneEntryHeader);
    EXPECT_EQ(bytes(18, 18), oneEntryHeader);
    EXPECT_EQ(bytes(36, helloRecord.size()), helloRecord);
    EXPECT_EQ(sink.recent, (Lines{{0, "hello"}}));
    append(std::string("up to\0here", 10), -1, UINT64_MAX);
    EXPECT_EQ(told(), "");
    load();
    EXPECT_EQ(told(), "info: 2 log entries read from cache.|");
    use([](qwk::Eeprom&) {}); // the buffer is filled: nothing is loaded twice
    EXPECT_EQ(sink.recent, (Lines{{0, "hello"}, {1, "up to"}}));
    const Lines lines = flushed();
    EXPECT_EQ(lines, (Lines{{0, "hello"}, {1, "up to"}}));
    EXPECT_TRUE(lines[0].priority == 6 && lines[0].time == helloTime);
    EXPECT_TRUE(lines[1].priority == 255 && lines[1].time == UINT64_MAX); // kept in one byte
}

TEST_F(EepromTest, longMessagesAreShortenedInTheChipOnly) {
    useCache();
    for (const std::size_t length : {0U, 256U, 257U, 300U}) {
        std::string message;
        while (message.size() < length)
            message += static_cast<char>('a' + message.size() % 26);
        append(message);
        EXPECT_EQ(sink.recent.back().message, message);
        if (length > 256)
            message = message.substr(0, 232) + "........" + message.substr(length - 16);
        EXPECT_EQ(flushed().at(0).message, message);
    }
}

TEST_F(EepromTest, newAndClearedChipsContinueTheLogFileAndNumbersWrap) {
    sink.nextId = 0x28;
    append("first");
    EXPECT_EQ(told(), "warning: Header of FRAM cache either invalid or uninitialised.|");
    append("second");
    EXPECT_EQ(flush(), 0);
    EXPECT_EQ(sink.written, (Lines{{0x28, "first"}, {0x29, "second"}}));
    EXPECT_EQ(told(), "info: 2 log entries written, next sequence number is [0000002a].|");
    EXPECT_EQ(bytes(0, 18), emptyHeaderNext42);
    EXPECT_EQ(bytes(18, 18), emptyHeaderNext42);
    EXPECT_TRUE(sink.recent.empty());
    append("gone");
    sink.nextId = 7;
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(chip.image(), framEmulator::Image{});
    EXPECT_TRUE(sink.recent.empty());
    append("kept");
    EXPECT_EQ(sink.recent, (Lines{{7, "kept"}}));
    useCache({36, 0, 0xFFFFFFFF});
    append("last");
    append("first again");
    EXPECT_EQ(flushed(), (Lines{{0xFFFFFFFF, "last"}, {0, "first again"}}));
}

TEST_F(EepromTest, ofTwoValidCopiesTheFirstCountsAndAnEmptyCacheStaysAsItIs) {
    useHeaders(emptyHeaderNext42, oneEntryHeader);
    const auto before = chip.image();
    load();
    sink.filled = true;
    sink.recent = {{1, "left over"}};
    told();
    EXPECT_EQ(flush(), 0);
    EXPECT_EQ(chip.image(), before);
    EXPECT_TRUE(sink.recent.empty() && sink.written.empty() && told().empty());
    append("next");
    EXPECT_EQ(sink.recent, (Lines{{42, "next"}}));
}

TEST_F(EepromTest, anEntryThatFitsExactlyIsStoredAndOneMoreByteFlushesFirst) {
    struct Case {
        std::size_t length, count, last; // so many messages of this length, and a last one
        bool fits;
    };
    for (const Case& one : {Case{256, 30, 11, true}, {256, 30, 12, false}, {0, 543, 0, false}}) {
        useCache();
        for (std::size_t i = 0; i < one.count; ++i)
            append(std::string(one.length, 'm'));
        EXPECT_TRUE(sink.written.empty());
        append(std::string(one.last, 'x'));
        EXPECT_EQ(sink.written.size(), one.fits ? 0 : one.count);
        EXPECT_EQ(sink.recent.size(), one.fits ? one.count + 1 : 1);
        const Lines recent = sink.recent;
        EXPECT_EQ(recent.back().id, one.count); // the numbering goes on
        EXPECT_EQ(flushed(), recent);
    }
}

TEST_F(EepromTest, damageIsReportedAndEndsWithTheNextFlush) {
    struct Case {
        std::size_t at; // what stands wrong in a cache of "hello" at 36 and "world" at 56
        Bytes wrong;
        std::uint32_t end;
        std::size_t usable; // entries before the fault
        std::string diagnostics;
    };
    const std::string unreadable = "Cannot read KLV for log entry at ";
    const Case cases[] = {{56, {'l', 'o', 'g', '2'}, 76, 1, "Unexpected header key (log2)|"},
                          {60, {0, 0}, 76, 1, unreadable + "56|"},
                          {60, {0, 5}, 76, 1, unreadable + "56|"},
                          {60, {0x20, 0}, 76, 1, unreadable + "56|"},
                          {60, {0, 14}, 76, 1, ""},                   // no room for the fields
                          {60, {0, 21}, 76, 2, ""},                   // the chain overshoots
                          {60, {0, 15}, 76, 2, unreadable + "71|"},   // it ends early
                          {36, {'l'}, 35, 0, ""},                     // an end in the headers
                          {76, {'x'}, 60000, 2, unreadable + "76|"}}; // an end beyond the chip
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        chip.setImage({});
        sink.filled = true;
        append("hello");
        append("world");
        useCache({one.end, 2, 2});
        poke(one.at, one.wrong);
        load();
        EXPECT_EQ(sink.recent.size(), one.usable);
        EXPECT_EQ(told(), one.diagnostics + "FRAM cache corrupted.|");
        EXPECT_EQ(flush(), 0);
        EXPECT_EQ(sink.written.size(), one.usable);
        EXPECT_EQ(said().back(), "info: " + std::to_string(one.usable) +
                                     " log entries written, next sequence number is [00000002].");
        load();
        EXPECT_EQ(told(), "info: 0 log entries read from cache.|");
    }
}

TEST_F(EepromTest, headersThatAreNoneAreNamed) {
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes(18, 0), ""},
        {Bytes(18, 0xFF), ""},
        {{'h', 'd', 'r', '1', 0, 19}, "Unexpected size of header block (19)|"},
        {{'h', 'd', 'r', '2', 0, 18}, "Unexpected header key (hdr2)|"},
        {{'h', 'd', 'r', '1', 0, 18, 9}, "Invalid CRC of header block|"}};
    for (const auto& [block, diagnostics] : cases) {
        useHeaders(block, block);
        load();
        EXPECT_EQ(told(), diagnostics + diagnostics); // once for each copy
        EXPECT_TRUE(sink.recent.empty());
    }
}

TEST_F(EepromTest, transfersAreExactlyThoseThatTheWorkNeeds) {
    // w or r, the address, the length with a write's address.
    const std::string headers = " w0:2 r0:6 w6:2 r6:12 w18:2 r18:6 w24:2 r24:12";
    const std::string text(256, 'm');
    struct Case {
        std::size_t entries; // in the chip before
        std::function<void()> work;
        std::string transfers;
    };
    const Case cases[] = {
        {0, [&] { append(text); }, headers + " w36:273 w0:20 w18:20"},
        {14, [&] { append(text); }, headers + " w3830:266 w4094:9 w0:20 w18:20"},
        {0, [&] { flush(); }, headers},
        {1, [&] { flush(); }, headers + " w36:2 r36:6 w42:2 r42:265 w0:20 w18:20"},
        {1, [&] { clear(); }, " w0:4096 w4094:4096 w8188:6"}};
    for (const Case& one : cases) {
        useCache();
        for (std::size_t i = 0; i < one.entries; ++i)
            append(text);
        chip.clearRecord();
        one.work();
        std::string transfers;
        for (const framEmulator::Transfer& transfer : chip.record())
            transfers += (transfer.kind == framEmulator::TransferKind::write ? " w" : " r") +
                         std::to_string(transfer.address) + ':' +
                         std::to_string(transfer.requested);
        EXPECT_EQ(transfers, one.transfers);
    }
}

TEST_F(EepromTest, whatFailsIsToldAndLeavesTheRest) {
    const std::function<int()> flushing = [&] { return flush(); };
    const std::function<int()> clearing = [&] { return clear(); };
    const std::function<int()> appending = [&] { return append("next"), 0; };
    const std::function<int()> loading = [&] { return load(), 0; };
    struct Case {
        std::function<int()> work;
        std::uint64_t failing; // transfer, from the end; 0 is none
        qwk::framLayout::Header header;
        int result;
        std::uint8_t endAfter; // by header copy 1
        std::string diagnostics;
    };
    const std::string notReset = "Writing of 18 bytes at address 0 failed.|";
    const std::string notCleared = "Writing of 8192 bytes at address 0 failed.|";
    const std::string written = " log entries written, next sequence number is [0000000";
    const Case cases[] = {
        {flushing,
         2,
         {56, 1, 1},
         -1,
         56,
         "info: 1" + written + "1].|" + notReset + "Cannot write headers.|"},
        {appending, 2, {56, 1, 1}, 0, 56, notReset + "Writing log to FRAM cache failed.|"},
        {clearing, 3, {56, 1, 1}, -1, 56, notCleared + "Clearing of FRAM failed.|"},
        {flushing, 0, {}, -1, 0, ""}, // no header at all
        {flushing, 0, {36, 7, 9}, 0, 36, "info: 0" + written + "9].|"},
        {loading, 0, {56, 7, 9}, 0, 56, "info: 7 log entries read from cache.|"}};
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        const auto arrange = [&] {
            useCache(one.header);
            poke(36, helloRecord);
            if (one.header.end == 0)
                chip.setImage({});
            sink.recent = {{0, "hello"}};
        };
        arrange();
        chip.clearRecord();
        one.work();
        const std::uint64_t transfers = chip.transferCount();
        arrange();
        chip.failTransfer(transfers - one.failing + 1);
        EXPECT_EQ(one.work(), one.result);
        EXPECT_EQ(told(), one.diagnostics);
        EXPECT_EQ(bytes(18 + 7, 1)[0], one.endAfter);
        EXPECT_TRUE(one.result == 0 || sink.recent.empty());
        chip.clearFaults();
    }
}

TEST_F(EepromTest, openTriesUntilItsTimeIsUp) {
    chip.refuseOpens();
    for (const auto& [timeoutMs, attempts] : {std::pair(0, 1), {49, 1}, {50, 2}, {200, 3}}) {
        EXPECT_EQ(qwk::Eeprom::open(&sink, timeoutMs), nullptr);
        const auto texts = said();
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "Error opening I2C Device: /dev/i2c-2"),
                  attempts);
    }
    // Without limit it returns once the device has appeared.
    std::thread repair([&] {
        EXPECT_TRUE(syslog.waitFor("Cannot access address 80 at /dev/i2c-2", 10s));
        chip.refuseOpens(0);
    });
    const std::unique_ptr<qwk::Eeprom> eeprom(qwk::Eeprom::open(&sink, -1));
    repair.join();
    EXPECT_NE(eeprom, nullptr);
}

TEST_F(EepromTest, aSlowReaderOfADumpHoldsNoLock) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_GT(fcntl(ends[1], F_SETPIPE_SZ, 4096), 0); // a tenth of the dump
    std::thread dumping([&, out = fdopen(ends[1], "w")] {
        use([&](qwk::Eeprom& eeprom) { eeprom.hexDump(out); });
        std::fclose(out);
    });
    pollfd reading{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&reading, 1, 10000), 1); // the dump is being printed
    append("meanwhile");                    // would wait for ever for a lock held by the dump
    char text[4096];
    EXPECT_EQ(::read(ends[0], text, 4), 4);
    EXPECT_EQ(std::string(text, 4), "0000");
    while (::read(ends[0], text, sizeof text) > 0) {
    }
    dumping.join();
    close(ends[0]);
}

TEST_F(EepromTest, operationsOfSeveralThreadsNeverMix) {
    useCache(); // and no load, which would be an operation of its own
    chip.clearRecord();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([this, thread] {
            const std::unique_ptr<std::FILE, int (*)(std::FILE*)> nowhere(
                std::fopen("/dev/null", "w"), std::fclose);
            for (int i = 0; i < 300; ++i)
                if (thread < 2)
                    append(std::to_string(2 * i + thread) + std::string(200, '.'));
                else if (thread == 2)
                    i % 20 == 0 ? clear() : flush();
                else
                    use([&](qwk::Eeprom& eeprom) { return eeprom.hexDump(nowhere.get()); });
        });
    for (std::thread& thread : threads)
        thread.join();
    // Each object has an open of its own: all its transfers stand together.
    std::set<std::uint64_t> ended;
    std::uint64_t current = 0;
    for (const auto& transfer : chip.record()) {
        if (transfer.opener != current)
            EXPECT_TRUE(ended.insert(std::exchange(current, transfer.opener)).second);
        ASSERT_EQ(ended.count(current), 0U);
    }
    std::set<std::string> lines;
    for (const Line& line : sink.written)
        EXPECT_TRUE(lines.insert(line.message).second) << line;
    EXPECT_FALSE(lines.empty());
}

TEST_F(EepromTest, withoutASinkTheChipStillWorks) {
    const auto open = [] { return std::unique_ptr<qwk::Eeprom>(qwk::Eeprom::open(nullptr, 0)); };
    open()->append(4, 1, "alone");
    const auto before = chip.image();
    EXPECT_EQ(open()->flush(), -1);
    EXPECT_EQ(chip.image(), before);
    load();
    EXPECT_EQ(sink.recent, (Lines{{0, "alone"}}));
    EXPECT_EQ(open()->clear(), 0);
    EXPECT_EQ(chip.image(), framEmulator::Image{});
}
