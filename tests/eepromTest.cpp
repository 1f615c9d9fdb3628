// The FRAM cache on a chip: what it stores, byte by byte, and what each operation does in each
// state.

#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <thread>
#include <utility>

#include "support/board.h"
#include "support/paths.h"

using namespace testSupport;
using framEmulator::TransferKind;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t headerSize = 18;
const Bytes emptyHeader = {0x68, 0x64, 0x72, 0x31, 0x00, 0x12, 0x00, 0x24, 0x00,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x38, 0x24, 0xA4, 0xDF};
const Bytes emptyHeaderNext42 = {0x68, 0x64, 0x72, 0x31, 0x00, 0x12, 0x00, 0x24, 0x00,
                                 0x00, 0x00, 0x00, 0x00, 0x2A, 0xE3, 0x9F, 0x6D, 0x09};
const Bytes oneEntryHeader = {0x68, 0x64, 0x72, 0x31, 0x00, 0x12, 0x00, 0x38, 0x00,
                              0x01, 0x00, 0x00, 0x00, 0x01, 0xD2, 0x3D, 0x4B, 0x43};
const Bytes helloRecord = {0x6C, 0x6F, 0x67, 0x31, 0x00, 0x14, 0x06, 0x00, 0x06, 0x0A,
                           0x24, 0x18, 0x1E, 0x40, 0x00, 0x68, 0x65, 0x6C, 0x6C, 0x6F};
constexpr std::uint64_t helloTime = 1700000000000000;
constexpr char uninitialised[] = "warning: Header of FRAM cache either invalid or uninitialised.";

class EepromTest : public Board {
protected:
    void useEmptyCache(const Bytes& header = emptyHeader) {
        poke(0, header);
        poke(headerSize, header);
        sink.filled = true; // nothing to load
        said();
        chip.clearRecord();
    }
    // A header with a right CRC and any content, in both copies.
    void useHeader(std::uint32_t end, std::uint32_t count, std::uint32_t nextId) {
        const auto block = qwk::framLayout::encodeHeader({end, count, nextId});
        poke(0, {block.begin(), block.end()});
        poke(headerSize, {block.begin(), block.end()});
    }
    std::vector<Line> flushed() {
        sink.written.clear();
        flush();
        return sink.written;
    }
    // Fills the chip up to address `end` (at least 36 + 15).
    void fillTo(std::size_t end) {
        std::size_t at = 36;
        for (; end - at >= 271 + 15; at += 271)
            append(std::string(256, 'm'));
        for (std::size_t left = end - at; left > 0; left = end - at) {
            const std::size_t length = left <= 271 ? left : left - 15;
            append(std::string(length - 15, 'm'));
            at += length;
        }
    }
};

} // namespace

TEST_F(EepromTest, anEntryStandsInTheChipAsDocumented) {
    useEmptyCache();
    append("hello", 6, helloTime);
    EXPECT_EQ(bytes(0, headerSize), oneEntryHeader);
    EXPECT_EQ(bytes(headerSize, headerSize), oneEntryHeader);
    EXPECT_EQ(bytes(36, helloRecord.size()), helloRecord);
    EXPECT_EQ(sink.recent, (std::vector<Line>{{0, "hello"}}));
    EXPECT_TRUE(said().empty());
}

TEST_F(EepromTest, longMessagesAreShortenedInTheChipOnly) {
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += static_cast<char>('a' + i % 26);
    const std::string shortened = text.substr(0, 232) + "........" + text.substr(284);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {text.substr(0, 256), text.substr(0, 256)},
        {text.substr(0, 257), text.substr(0, 232) + "........" + text.substr(241, 16)},
        {text, shortened}};
    for (const auto& [message, stored] : cases) {
        useEmptyCache();
        append(message);
        EXPECT_EQ(sink.recent.back().message, message);
        EXPECT_EQ(flushed(), (std::vector<Line>{{0, stored}})) << message.size();
    }
}

TEST_F(EepromTest, aNewChipContinuesTheLogFile) {
    sink.nextId = 0x2A;
    append("first");
    EXPECT_EQ(said(), std::vector<std::string>{uninitialised});
    append("second");
    EXPECT_EQ(flush(), 0);
    EXPECT_EQ(sink.written, (std::vector<Line>{{0x2A, "first"}, {0x2B, "second"}}));
    EXPECT_EQ(said(), std::vector<std::string>{
                          "info: 2 log entries written, next sequence number is [0000002c]."});
    EXPECT_TRUE(sink.recent.empty());
}

TEST_F(EepromTest, flushingAnEmptyCacheTouchesOnlyTheBuffer) {
    useEmptyCache(emptyHeaderNext42);
    sink.recent = {{1, "left over"}};
    const auto before = chip.image();
    EXPECT_EQ(flush(), 0);
    EXPECT_EQ(chip.image(), before);
    EXPECT_TRUE(sink.recent.empty() && sink.written.empty() && said().empty());
    append("next");
    EXPECT_EQ(sink.recent, (std::vector<Line>{{42, "next"}}));
}

TEST_F(EepromTest, anEntryThatFitsExactlyIsStoredAndOneMoreByteFlushesFirst) {
    for (const bool fits : {true, false}) {
        chip.setImage({});
        sink.written.clear();
        sink.filled = true;
        fillTo(8192 - 115);
        const std::size_t before = sink.recent.size();
        append(std::string(fits ? 100 : 101, 'x'));
        EXPECT_EQ(sink.written.size(), fits ? 0 : before);
        EXPECT_EQ(sink.recent.size(), fits ? before + 1 : 1);
        EXPECT_EQ(sink.recent.back().id, before); // the numbering goes on
        const auto lines = flushed();
        EXPECT_EQ(lines.size(), fits ? before + 1 : 1);
        EXPECT_EQ(lines.back(),
                  (Line{static_cast<std::uint32_t>(before), std::string(fits ? 100 : 101, 'x')}));
    }
}

TEST_F(EepromTest, capacityIsThirtyLongOr543EmptyEntries) {
    for (const auto& [length, capacity] :
         {std::pair<std::size_t, std::size_t>{256, 30}, {0, 543}}) {
        useEmptyCache();
        sink.written.clear();
        sink.recent.clear();
        for (std::size_t i = 0; i <= capacity; ++i)
            append(std::string(length, 'm'));
        EXPECT_EQ(sink.written.size(), capacity);
        EXPECT_EQ(sink.recent.size(), 1U);
    }
}

TEST_F(EepromTest, numbersWrap) {
    useHeader(36, 0, 0xFFFFFFFF);
    sink.filled = true;
    append("last");
    append("first again");
    EXPECT_EQ(flushed(), (std::vector<Line>{{0xFFFFFFFF, "last"}, {0, "first again"}}));
}

TEST_F(EepromTest, theFirstObjectOfAProcessLoadsTheChip) {
    append("one");
    append("two");
    said();
    load();
    EXPECT_EQ(sink.recent, (std::vector<Line>{{0, "one"}, {1, "two"}}));
    EXPECT_EQ(said(), std::vector<std::string>{"info: 2 log entries read from cache."});
    use([](qwk::Eeprom&) {}); // the buffer is filled: nothing is loaded twice
    EXPECT_EQ(sink.recent.size(), 2U);
    EXPECT_TRUE(said().empty());
    EXPECT_FALSE(sink.isLocked());
}

TEST_F(EepromTest, clearedChipsContinueTheLogFile) {
    append("gone");
    sink.nextId = 7;
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(chip.image(), framEmulator::Image{});
    EXPECT_TRUE(sink.recent.empty());
    said();
    EXPECT_EQ(flush(), -1);
    EXPECT_TRUE(said().empty());
    append("kept");
    EXPECT_EQ(sink.recent, (std::vector<Line>{{7, "kept"}}));
}

TEST_F(EepromTest, headerCopiesMendEachOther) {
    for (const std::size_t damaged : {0U, 18U}) {
        for (std::size_t at = damaged; at < damaged + headerSize; ++at) {
            useEmptyCache(oneEntryHeader);
            poke(36, helloRecord);
            poke(at, {static_cast<std::uint8_t>(bytes(at, 1)[0] ^ 0x10)});
            load();
            EXPECT_EQ(sink.recent, (std::vector<Line>{{0, "hello"}})) << at;
            EXPECT_EQ(bytes(0, headerSize), oneEntryHeader) << at;
            EXPECT_EQ(bytes(headerSize, headerSize), oneEntryHeader) << at;
        }
    }
}

TEST_F(EepromTest, ofTwoValidCopiesTheFirstCountsAndNoneIsRewritten) {
    useEmptyCache();
    poke(headerSize, emptyHeaderNext42);
    const auto before = chip.image();
    load();
    EXPECT_EQ(chip.image(), before);
    append("x");
    EXPECT_EQ(sink.recent.back().id, 0U);
}

TEST_F(EepromTest, damageIsReportedAndEndsWithTheNextFlush) {
    struct Case {
        const char* name;
        std::size_t at; // what stands wrong in a cache of "hello" at 36 and "world" at 56
        Bytes wrong;
        std::uint32_t end;
        std::size_t usable; // entries before the fault
        std::vector<std::string> diagnostics;
    };
    const std::string corrupted = "FRAM cache corrupted.";
    const Case cases[] = {
        {"wrong key", 56, {'l', 'o', 'g', '2'}, 76, 1, {"Unexpected header key (log2)", corrupted}},
        {"length 0", 60, {0, 0}, 76, 1, {"Cannot read KLV for log entry at 56", corrupted}},
        {"length 5", 60, {0, 5}, 76, 1, {"Cannot read KLV for log entry at 56", corrupted}},
        {"length 8192", 60, {0x20, 0}, 76, 1, {"Cannot read KLV for log entry at 56", corrupted}},
        {"no room for the fields", 60, {0, 14}, 76, 1, {corrupted}},
        {"chain overshoots", 60, {0, 21}, 76, 2, {corrupted}},
        {"chain ends early",
         60,
         {0, 15},
         76,
         2,
         {"Cannot read KLV for log entry at 71", corrupted}},
        {"end in the headers", 36, {'l'}, 35, 0, {corrupted}},
        {"end beyond the chip",
         76,
         {'x'},
         60000,
         2,
         {"Cannot read KLV for log entry at 76", corrupted}},
    };
    for (const Case& wrong : cases) {
        SCOPED_TRACE(wrong.name);
        useEmptyCache();
        sink.written.clear();
        append("hello");
        append("world");
        useHeader(wrong.end, 2, 2);
        poke(wrong.at, wrong.wrong);
        load();
        EXPECT_EQ(sink.recent.size(), wrong.usable);
        std::vector<std::string> texts = said();
        ASSERT_EQ(texts.size(), wrong.diagnostics.size());
        for (std::size_t i = 0; i < texts.size(); ++i)
            EXPECT_EQ(texts[i], wrong.diagnostics[i]);
        EXPECT_EQ(flush(), 0);
        EXPECT_EQ(sink.written.size(), wrong.usable);
        EXPECT_EQ(said().back(), "info: " + std::to_string(wrong.usable) +
                                     " log entries written, next sequence number is [00000002].");
        load();
        EXPECT_EQ(said(), std::vector<std::string>{"info: 0 log entries read from cache."});
    }
}

TEST_F(EepromTest, headersThatAreNoneAreNamed) {
    const std::pair<Bytes, std::vector<std::string>> cases[] = {
        {Bytes(headerSize, 0), {}},
        {Bytes(headerSize, 0xFF), {}},
        {{'h', 'd', 'r', '1', 0, 19}, {"Unexpected size of header block (19)"}},
        {{'h', 'd', 'r', '2', 0, 18}, {"Unexpected header key (hdr2)"}},
        {{'h', 'd', 'r', '1', 0, 18, 9}, {"Invalid CRC of header block"}}};
    for (const auto& [block, diagnostics] : cases) {
        useEmptyCache(block);
        load();
        std::vector<std::string> twice = diagnostics; // once for each copy
        twice.insert(twice.end(), diagnostics.begin(), diagnostics.end());
        EXPECT_EQ(said(), twice);
        EXPECT_TRUE(sink.recent.empty());
    }
}

TEST_F(EepromTest, transfersAreExactlyThoseThatTheWorkNeeds) {
    struct Expected {
        TransferKind kind;
        std::size_t address;
        std::size_t length; // with a write's two address bytes
    };
    const auto read = [](std::size_t at, std::size_t length) {
        return std::vector<Expected>{{TransferKind::write, at, 2},
                                     {TransferKind::read, at, length}};
    };
    const auto write = [](std::size_t at, std::size_t length) {
        return std::vector<Expected>{{TransferKind::write, at, length + 2}};
    };
    const auto joined = [](const std::vector<std::vector<Expected>>& parts) {
        std::vector<Expected> all;
        for (const auto& part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    };
    const auto headers = joined({read(0, 6), read(6, 12), read(18, 6), read(24, 12)});
    struct Case {
        const char* name;
        std::size_t fill; // the chip is filled up to here first
        std::function<void()> work;
        std::vector<Expected> transfers;
    };
    const std::string hundred(100, 'm');
    const Case cases[] = {
        {"append", 36, [&] { append(hundred); },
         joined({headers, write(36, 115), write(0, 18), write(18, 18)})},
        {"append over a chunk's end", 4000, [&] { append(hundred); },
         joined({headers, write(4000, 94), write(4094, 21), write(0, 18), write(18, 18)})},
        {"flush of nothing", 36, [&] { flush(); }, headers},
        {"flush of one", 136, [&] { flush(); },
         joined({headers, read(36, 6), read(42, 94), write(0, 18), write(18, 18)})},
        {"clear", 36, [&] { clear(); },
         joined({write(0, 4094), write(4094, 4094), write(8188, 4)})}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        useEmptyCache();
        fillTo(one.fill);
        chip.clearRecord();
        one.work();
        const auto record = chip.record();
        ASSERT_EQ(record.size(), one.transfers.size());
        for (std::size_t i = 0; i < record.size(); ++i) {
            EXPECT_EQ(record[i].kind, one.transfers[i].kind) << i;
            EXPECT_EQ(record[i].address, one.transfers[i].address) << i;
            EXPECT_EQ(record[i].requested, one.transfers[i].length) << i;
        }
    }
}

TEST_F(EepromTest, decodedEntriesAreWhatWasAppended) {
    append("hello", 6, helloTime);
    append(std::string("up to\0here", 10), -1, UINT64_MAX);
    load();
    flush();
    const std::vector<Line>& lines = sink.written;
    EXPECT_EQ(lines, (std::vector<Line>{{0, "hello"}, {1, "up to"}}));
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].time, helloTime);
    EXPECT_EQ(lines[1].priority, 255); // one byte of it is kept
    EXPECT_EQ(lines[1].time, UINT64_MAX);
}

TEST_F(EepromTest, whatFailsIsToldAndLeavesTheRest) {
    struct Case {
        const char* name;
        std::function<void()> arrange;
        std::function<int()> work;
        int result;
        std::vector<std::string> diagnostics;
        std::uint32_t endAfter; // by header copy 1
    };
    const auto failLast = [&](std::uint64_t count, std::function<int()> work) {
        const auto before = chip.image();
        chip.clearRecord();
        work();
        chip.setImage(before);
        sink.written.clear();
        said();
        chip.failTransfer(chip.transferCount() - count + 1);
    };
    const auto flushing = [&] { return flush(); };
    const auto clearing = [&] { return clear(); };
    const auto appending = [&] { return append("next"), 0; };
    const std::string notWritten = " at address 0 failed.";
    const Case cases[] = {
        {"reset of copy 0",
         [&] { failLast(2, flushing); },
         flushing,
         -1,
         {"info: 1 log entries written, next sequence number is [00000001].",
          "Writing of 18 bytes" + notWritten, "Cannot write headers."},
         56},
        {"copy 0 of an append",
         [&] { failLast(2, appending); },
         appending,
         0,
         {"Writing of 18 bytes" + notWritten, "Writing log to FRAM cache failed."},
         56},
        {"clear",
         [&] { failLast(3, clearing); },
         clearing,
         -1,
         {"Writing of 8192 bytes" + notWritten, "Clearing of FRAM failed."},
         56},
        {"flush without a header", [&] { chip.setImage({}); }, flushing, -1, {}, 0},
        {"a count without entries",
         [&] { useHeader(36, 7, 9); },
         flushing,
         0,
         {"info: 0 log entries written, next sequence number is [00000009]."},
         36},
        {"the header's count is told",
         [&] { useHeader(56, 7, 9); },
         [&] { return load(), 0; },
         0,
         {"info: 7 log entries read from cache."},
         56},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        useEmptyCache(oneEntryHeader);
        poke(36, helloRecord);
        one.arrange();
        said();
        sink.recent = {{0, "hello"}};
        EXPECT_EQ(one.work(), one.result);
        EXPECT_EQ(said(), one.diagnostics);
        EXPECT_EQ(bytes(headerSize + 7, 1)[0], one.endAfter);
        EXPECT_TRUE(one.result == 0 || sink.recent.empty());
        chip.clearFaults();
    }
}

TEST_F(EepromTest, openTriesUntilItsTimeIsUp) {
    chip.refuseOpens();
    const auto attempts = [&](int timeoutMs) {
        said();
        EXPECT_EQ(qwk::Eeprom::open(&sink, timeoutMs), nullptr);
        const auto texts = said();
        return std::count(texts.begin(), texts.end(), "Error opening I2C Device: /dev/i2c-2");
    };
    EXPECT_EQ(attempts(0), 1);
    EXPECT_EQ(attempts(49), 1);
    EXPECT_EQ(attempts(50), 2);
    EXPECT_EQ(attempts(200), 3);
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
    std::FILE* out = fdopen(ends[1], "w");
    chip.clearRecord();
    std::thread dumping([&] { use([&](qwk::Eeprom& eeprom) { eeprom.hexDump(out); }); });
    pollfd reading{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&reading, 1, 10000), 1); // the dump is being printed
    append("meanwhile");                    // would wait for ever for a lock held by the dump
    char text[8];
    EXPECT_EQ(::read(ends[0], text, 4), 4);
    EXPECT_EQ(std::string(text, 4), "0000");
    std::thread draining([&] {
        char rest[4096];
        while (::read(ends[0], rest, sizeof rest) > 0) {
        }
    });
    dumping.join();
    std::fclose(out);
    draining.join();
    close(ends[0]);
}

TEST_F(EepromTest, operationsOfSeveralThreadsNeverMix) {
    useEmptyCache(); // and no load, which would be an operation of its own
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            const std::unique_ptr<std::FILE, int (*)(std::FILE*)> nowhere(
                std::fopen("/dev/null", "w"), std::fclose);
            for (int i = 0; i < 300; ++i)
                if (thread < 2)
                    append(std::to_string(thread) + '.' + std::to_string(i) +
                           std::string(200, '.'));
                else if (thread == 2)
                    i % 20 == 0 ? clear() : flush();
                else
                    use([&](qwk::Eeprom& eeprom) { return eeprom.hexDump(nowhere.get()); });
        });
    }
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
    EXPECT_EQ(sink.recent, (std::vector<Line>{{0, "alone"}}));
    EXPECT_EQ(open()->clear(), 0);
    EXPECT_EQ(chip.image(), framEmulator::Image{});
}
