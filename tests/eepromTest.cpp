// The FRAM cache on a chip: its bytes, and each operation in each state.

#include <set>
#include <thread>
#include <tuple>

#include "support/board.h"

using namespace testSupport;

namespace {

const Bytes oneEntryHeader = {'h',  'd',  'r',  '1',   // key
                              0x00, 0x12,              // length of the block
                              0x00, 0x38,              // end of the records
                              0x00, 0x01,              // number of entries
                              0x00, 0x00, 0x00, 0x01,  // number of the next entry
                              0xD2, 0x3D, 0x4B, 0x43}; // checksum

class EepromTest : public Board {
protected:
    // A cache with such headers, and nothing to load.
    void useCache(const qwk::framLayout::Header& header = {36, 0, 0}) {
        const auto block = qwk::framLayout::encodeHeader(header);
        for (const unsigned copy : {0U, 18U})
            poke(copy, {block.begin(), block.end()});
        sink.filled = true;
        sink.recent.clear();
        takeDiagnostics();
    }
    Lines flushed() {
        sink.written.clear();
        openEeprom().flush();
        return sink.written;
    }
};

} // namespace

TEST_F(EepromTest, anEntryStandsInTheChipAsDocumented) {
    constexpr std::uint64_t helloTime = 1700000000000000;
    const Bytes helloRecord = {'l',  'o',  'g',  '1',                          // key
                               0x00, 0x14,                                     // length
                               0x06,                                           // priority
                               0x00, 0x06, 0x0A, 0x24, 0x18, 0x1E, 0x40, 0x00, // time
                               'h',  'e',  'l',  'l',  'o'};                   // message
    useCache();
    openEeprom().append(6, helloTime, "hello");
    EXPECT_EQ(bytes(0, 18), oneEntryHeader);
    EXPECT_EQ(bytes(18, 18), oneEntryHeader);
    EXPECT_EQ(bytes(36, helloRecord.size()), helloRecord);
    openEeprom().append(-1, UINT64_MAX, std::string("up to\0here", 10));
    EXPECT_EQ(takeDiagnostics(), "");
    load();
    EXPECT_EQ(takeDiagnostics(), "info: 2 log entries read from cache.|");
    openEeprom(); // the buffer is filled: nothing is loaded twice
    const Lines expected = {{0, "hello"}, {1, "up to"}};
    EXPECT_EQ(sink.recent, expected);
    const Lines lines = flushed();
    ASSERT_EQ(lines, expected);
    EXPECT_TRUE(lines[0].priority == 6 && lines[0].time == helloTime);
    EXPECT_TRUE(lines[1].priority == 255 && lines[1].time == UINT64_MAX); // kept in one byte
}

TEST_F(EepromTest, longMessagesAreShortenedInTheChipOnly) {
    useCache();
    const std::string head = std::string(231, 'a') + 'b', tail = "0123456789ABCDEF";
    Lines lines = {{0, ""}, {1, head + "12345678" + tail}, {2, head + "123456789" + tail}};
    for (const Line& line : lines)
        append(line.message);
    EXPECT_EQ(sink.recent, lines);
    lines[2].message = head + "........" + tail;
    EXPECT_EQ(flushed(), lines);
}

TEST_F(EepromTest, newAndClearedChipsContinueTheLogFileAndNumbersWrap) {
    const std::string isNew = "warning: Header of FRAM cache either invalid or uninitialised.|";
    const std::string flushedTwo = "info: 2 log entries written, next sequence number is ";
    for (const auto& [first, next] : {std::pair(0x10028U, "[0001002a].|"), {~0U, "[00000001].|"}}) {
        sink.nextId = first;
        append("first");
        append("second");
        EXPECT_EQ(flushed(), (Lines{{first, "first"}, {first + 1, "second"}}));
        EXPECT_EQ(takeDiagnostics(), isNew + flushedTwo + next);
        EXPECT_EQ(openEeprom().clear(), 0);
        EXPECT_EQ(openEeprom().flush(), -1);
        EXPECT_TRUE(chip.image() == framEmulator::Image{} && takeDiagnostics().empty());
    }
}

TEST_F(EepromTest, damageIsReportedAndEndsWithTheNextFlush) {
    const std::string unreadable = "Cannot read KLV for log entry at ";
    // The wrong bytes in a cache of "hello" at 36 and "world" at 56, the header's end, the number
    // of entries before the fault.
    const std::tuple<std::size_t, Bytes, std::uint32_t, std::size_t, std::string> cases[] = {
        {56, {'l', 'o', 'g', '2'}, 76, 1, "Unexpected header key (log2)|"},
        {60, {0, 5}, 76, 1, unreadable + "56|"},
        {60, {0x20, 0}, 76, 1, unreadable + "56|"},
        {60, {0, 14}, 76, 1, ""},                   // no room for the fields
        {60, {0, 21}, 76, 2, ""},                   // the chain overshoots
        {60, {0, 15}, 76, 2, unreadable + "71|"},   // it ends early
        {36, {'l'}, 35, 0, ""},                     // an end in the headers
        {76, {'x'}, 60000, 2, unreadable + "76|"}}; // an end beyond the chip
    for (const auto& [at, wrong, end, usable, diagnostics] : cases) {
        SCOPED_TRACE(testing::PrintToString(wrong));
        chip.setImage({});
        append("hello");
        append("world");
        useCache({end, 2, 2});
        poke(at, wrong);
        load();
        sink.filled = true;
        EXPECT_EQ(sink.recent.size(), usable);
        EXPECT_EQ(flushed().size(), usable);
        load();
        const std::string corrupted = diagnostics + "FRAM cache corrupted.|";
        EXPECT_EQ(takeDiagnostics(),
                  corrupted + corrupted + "info: " + std::to_string(usable) +
                      " log entries written, next sequence number is [00000002].|"
                      "info: 0 log entries read from cache.|");
    }
}

TEST_F(EepromTest, headersThatAreNoneAreNamed) {
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes(18, 0), ""},
        {{'h', 'd', 'r', '2', 0, 19}, "Unexpected size of header block (19)|"},
        {{'h', 'd', 'r', '2', 0, 18}, "Unexpected header key (hdr2)|"},
        {{'h', 'd', 'r', '1', 0, 18, 9}, "Invalid CRC of header block|"}};
    for (const auto& [block, diagnostics] : cases) {
        poke(0, block);
        poke(18, block);
        load();
        EXPECT_EQ(takeDiagnostics(), diagnostics + diagnostics); // once for each copy
    }
}

TEST_F(EepromTest, transfersAreExactlyThoseThatTheWorkNeeds) {
    const std::string headers = " w0:2 r0:6 w6:2 r6:12 w18:2 r18:6 w24:2 r24:12";
    useCache();
    openEeprom().flush();
    EXPECT_EQ(transfers(), headers);
    append("hello");
    EXPECT_EQ(transfers(), headers + " w36:22 w0:20 w18:20");
    openEeprom().flush();
    EXPECT_EQ(transfers(), headers + " w36:2 r36:6 w42:2 r42:14 w0:20 w18:20");
}

TEST_F(EepromTest, aFailedWriteIsTold) {
    const auto failing = [&](std::uint64_t transfer) {
        useCache();
        append("hello");
        chip.failTransfer(transfer);
    };
    failing(10); // copy 0, after the eight of the headers' reading and the record's
    append("next");
    EXPECT_EQ(takeDiagnostics(),
              "Writing of 18 bytes at address 0 failed.|Writing log to FRAM cache failed.|");
    failing(13); // copy 0, after the four of the entry's reading
    EXPECT_EQ(openEeprom().flush(), -1);
    EXPECT_EQ(takeDiagnostics(), "info: 1 log entries written, next sequence number is [00000001].|"
                                 "Writing of 18 bytes at address 0 failed.|Cannot write headers.|");
    failing(3); // the last of the zeros
    EXPECT_EQ(openEeprom().clear(), -1);
    EXPECT_EQ(takeDiagnostics(),
              "Writing of 8192 bytes at address 0 failed.|Clearing of FRAM failed.|");
}

TEST_F(EepromTest, openTriesUntilItsTimeIsUp) {
    chip.refuseOpens();
    int locked = 0;
    sink.onUnlock = [&] { ++locked; };
    for (const auto& [timeoutMs, attempts] : {std::pair(0, 1), {49, 1}, {50, 2}, {200, 3}}) {
        locked = 0;
        EXPECT_EQ(qwk::Eeprom::open(&sink, timeoutMs), nullptr);
        EXPECT_EQ(locked, attempts);
        const std::string texts = takeDiagnostics();
        EXPECT_EQ(std::count(texts.begin(), texts.end(), '|'), 2 * attempts) << texts;
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
    std::function<void()> meanwhile = [&] { append("meanwhile"); }; // would wait for the lock
    cookie_io_functions_t reader{};
    reader.write = [](void* work, const char*, std::size_t size) {
        (*static_cast<std::function<void()>*>(work))();
        return static_cast<ssize_t>(size);
    };
    std::FILE* const out = fopencookie(&meanwhile, "w", reader);
    EXPECT_EQ(openEeprom().hexDump(out), 0);
    EXPECT_EQ(std::fclose(out), 0);
    EXPECT_GT(sink.recent.size(), 1U); // it was printed in pieces
}

TEST_F(EepromTest, operationsOfSeveralThreadsNeverMix) {
    useCache(); // and no load, which would be an operation of its own
    const auto appendOne = [this](int i) { append(std::string(200, '.') + std::to_string(i)); };
    const std::function<void(int)> works[] = {
        appendOne, [&](int i) { appendOne(300 + i); },
        [this](int i) { return i % 20 == 0 ? openEeprom().clear() : openEeprom().flush(); },
        [this](int) { openEeprom().hexDump(devNull.get()); }};
    std::vector<std::thread> threads;
    for (const auto& work : works)
        threads.emplace_back([&work] {
            for (int i = 0; i < 300; ++i)
                work(i);
        });
    for (std::thread& thread : threads)
        thread.join();
    // Each object has an open of its own: all its transfers come together.
    std::vector<std::uint64_t> openers;
    for (const framEmulator::Transfer& transfer : chip.record())
        if (openers.empty() || openers.back() != transfer.opener)
            openers.push_back(transfer.opener);
    EXPECT_EQ(openers.size(), 4 * 300U);
    std::set<std::string> texts;
    for (const Line& line : sink.written)
        EXPECT_TRUE(texts.insert(line.message).second) << line;
}

TEST_F(EepromTest, withoutASinkTheChipStillWorks) {
    const auto open = [] { return std::unique_ptr<qwk::Eeprom>(qwk::Eeprom::open(nullptr, 0)); };
    open()->append(4, 1, "alone");
    EXPECT_EQ(open()->flush(), -1);
    load();
    EXPECT_EQ(sink.recent, (Lines{{0, "alone"}}));
    EXPECT_EQ(open()->clear(), 0);
    EXPECT_EQ(chip.image(), framEmulator::Image{});
}
