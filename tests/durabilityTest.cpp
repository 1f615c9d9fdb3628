// What survives: a power cut after every byte on the bus, a fault of every transfer, and chips of
// any content. QUILLWICK_MATRIX=full runs every case; otherwise large matrices are sampled.

#include <cstdlib>
#include <map>
#include <optional>
#include <random>

#include "support/board.h"

using namespace testSupport;
using framEmulator::TornByte;
using framEmulator::TransferKind;

namespace {

// Every how manieth case of a large matrix is run. Primes, so that all positions take their turn.
std::size_t stride(std::size_t sampled) {
    const char* matrix = std::getenv("QUILLWICK_MATRIX");
    return matrix != nullptr && std::string(matrix) == "full" ? 1 : sampled;
}

// The chip and the log file at a moment when both are well.
struct Snapshot {
    framEmulator::Image image;
    std::vector<Line> written;
    std::vector<Line> cached;
};

enum class Work { append, flush, clear, load, dump };

class DurabilityTest : public Board {
protected:
    DurabilityTest() {
        chip.setRecording(false);
        // A line is on stable storage when the lock is released, if there still is power then.
        sink.onUnlock = [this] {
            if (chip.isPowered())
                stable = sink.written.size();
        };
    }

    void appendNext() { append(text(next++)); }
    // Texts tell their number, so that a number that names two entries is found.
    std::string text(std::size_t number) const {
        std::string message = "entry " + std::to_string(number) + ' ';
        message.resize(100, 'm');
        return message;
    }
    void restore(const Snapshot& moment) {
        chip.clearFaults();
        chip.powerOn();
        chip.setImage(moment.image);
        sink.written = moment.written;
        stable = sink.written.size();
        next = moment.written.size() + moment.cached.size();
        restartProcess();
    }
    // What a new process knows of the log.
    void restartProcess() {
        restart();
        sink.nextId = static_cast<std::uint32_t>(sink.written.size());
        if (!sink.written.empty())
            sink.nextId = sink.written.back().id + 1;
    }
    // The board comes back after a cut. Lines that were not on stable storage may be gone.
    void comeBack(bool unsyncedLinesSurvive) {
        chip.clearFaults();
        chip.powerOn();
        if (!unsyncedLinesSurvive)
            sink.written.resize(std::min(stable, sink.written.size()));
        restartProcess();
        said();
    }
    std::vector<Line> chipAndLogFile() const {
        std::vector<Line> all = sink.written;
        all.insert(all.end(), sink.recent.begin(), sink.recent.end());
        return all;
    }
    // Each of the first `required` entries is there, at most one more is, and every number has one
    // text and no gap before it.
    void expectNothingLost(std::size_t required, bool linesMayComeTwice) {
        std::map<std::uint32_t, std::string> entries;
        const std::vector<Line> all = chipAndLogFile();
        for (const Line& line : all) {
            ASSERT_LT(line.id, required + 1);
            ASSERT_EQ(line.message, text(line.id));
            entries[line.id] = line.message;
        }
        ASSERT_GE(entries.size(), required);
        ASSERT_TRUE(entries.empty() || entries.rbegin()->first == entries.size() - 1);
        ASSERT_TRUE(linesMayComeTwice || all.size() == entries.size());
    }
    void expectUndamaged() {
        for (const std::string& message : said())
            ASSERT_EQ(message.find("corrupted"), std::string::npos) << message;
    }
    void expectAppendWorks() {
        const std::size_t number =
            chipAndLogFile().empty() ? sink.nextId : chipAndLogFile().back().id + 1;
        append(text(number));
        ASSERT_EQ(sink.recent.back(), (Line{static_cast<std::uint32_t>(number), text(number)}));
        ASSERT_EQ(flush(), 0);
        ASSERT_EQ(sink.written.back(), (Line{static_cast<std::uint32_t>(number), text(number)}));
    }
    // A new chip with this many entries, flushed or not, and one byte of it wrong.
    Snapshot filled(std::size_t entries, bool flushed = false, std::size_t damaged = notDamaged) {
        restore({});
        while (next < entries)
            appendNext();
        if (flushed)
            flush();
        if (damaged != notDamaged)
            poke(damaged, {static_cast<std::uint8_t>(bytes(damaged, 1)[0] ^ 1)});
        return {chip.image(), sink.written, sink.recent};
    }
    void work(Work kind) {
        switch (kind) {
        case Work::append:
            return appendNext();
        case Work::flush:
            return static_cast<void>(flush());
        case Work::clear:
            return static_cast<void>(clear());
        case Work::load:
            return load();
        case Work::dump:
            return use([&](qwk::Eeprom& eeprom) { eeprom.hexDump(nowhere.get()); });
        }
    }

    static constexpr std::size_t notDamaged = SIZE_MAX;
    static constexpr std::size_t fullChip = 70; // entries of 100 bytes
    std::size_t next = 0;                       // number of the next entry
    std::size_t stable = 0;                     // lines of the log file that no power cut takes
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> nowhere{std::fopen("/dev/null", "w"),
                                                            std::fclose};
};

} // namespace

class PowerCutTest : public DurabilityTest {
protected:
    // Cuts the power in the work, then (with `second`) also in the recovery, and checks what is
    // left. Each cut is one point of the matrix.
    void cut(const Snapshot& before, Work kind, std::uint64_t first, TornByte torn,
             std::optional<std::uint64_t> second, bool unsyncedLinesSurvive) {
        restore(before);
        sink.filled = kind != Work::load;
        const std::size_t required = next;
        chip.cutPowerAfter(first, torn, static_cast<std::uint32_t>(first));
        work(kind);
        comeBack(unsyncedLinesSurvive);
        if (second) {
            chip.cutPowerAfter(*second, torn, static_cast<std::uint32_t>(*second));
            load();
            flush();
            comeBack(unsyncedLinesSurvive);
        }
        ++points;
        load();
        expectUndamaged();
        if (kind != Work::clear) { // which takes the entries, as asked for
            const bool flushed = kind == Work::flush || required == fullChip || second;
            expectNothingLost(required, flushed);
        }
        expectAppendWorks();
    }
    std::uint64_t wireBytesOf(const Snapshot& before, Work kind) {
        restore(before);
        sink.filled = kind != Work::load;
        chip.clearRecord();
        work(kind);
        return chip.wireBytes();
    }

    std::size_t points = 0;
};

TEST_F(PowerCutTest, atEveryByteOfEveryOperation) {
    struct Scenario {
        const char* name;
        std::size_t entries; // in the chip before
        Work work;
        std::size_t sampled;
        std::size_t damagedByte = notDamaged;
        bool flushed = false; // the entries are in the log file, the cache is empty
    };
    const Scenario scenarios[] = {
        {"append into a new chip", 0, Work::append, 1},
        {"append into an empty cache", 2, Work::append, 1, notDamaged, true},
        {"append into a filled cache", 5, Work::append, 1},
        {"append that fills the chip", fullChip - 1, Work::append, 5},
        {"append over the end of a write chunk", 35, Work::append, 3},
        {"append that flushes first", fullChip, Work::append, 97},
        {"flush", 5, Work::flush, 1},
        {"flush of a full chip", fullChip, Work::flush, 97},
        {"clear", 5, Work::clear, 17},
        {"repair of copy 0", 5, Work::load, 1, 10},
        {"repair of copy 1", 5, Work::load, 1, 28}};
    for (const Scenario& scenario : scenarios) {
        const Snapshot before = filled(scenario.entries, scenario.flushed, scenario.damagedByte);
        const std::uint64_t bytes = wireBytesOf(before, scenario.work);
        for (std::uint64_t at = 0; at <= bytes; at += stride(scenario.sampled)) {
            for (const TornByte torn :
                 {TornByte::newValue, TornByte::oldValue, TornByte::randomBits}) {
                const int kind = static_cast<int>(torn);
                SCOPED_TRACE(std::string(scenario.name) + ", cut after byte " + std::to_string(at) +
                             ", torn byte kind " + std::to_string(kind));
                const bool survive = (at + static_cast<std::uint64_t>(kind)) % 2 == 0;
                ASSERT_NO_FATAL_FAILURE(
                    cut(before, scenario.work, at, torn, std::nullopt, survive));
            }
            // A recovery of few entries: the headers, perhaps a repair, the entries, the reset.
            for (std::uint64_t second = at % 7; scenario.entries <= 5 && second < 700;
                 second += stride(97)) {
                SCOPED_TRACE(std::string(scenario.name) + ", cut after byte " + std::to_string(at) +
                             " and byte " + std::to_string(second) + " of the recovery");
                ASSERT_NO_FATAL_FAILURE(
                    cut(before, scenario.work, at, TornByte::randomBits, second, at % 2 == 0));
            }
        }
    }
    std::printf("%zu cut points\n", points);
}

class BusFaultTest : public DurabilityTest {};

TEST_F(BusFaultTest, everyTransferFailsOnceIsCutShortAndFailsForGood) {
    struct Case {
        const char* name;
        std::size_t entries;
        Work work;
        const char* verdict; // said when every transfer fails
    };
    const Case cases[] = {
        {"append", 5, Work::append, "Writing log to FRAM cache failed."},
        {"append that flushes first", fullChip, Work::append, "Writing log to FRAM cache failed."},
        {"flush", 5, Work::flush, nullptr},
        {"clear", 5, Work::clear, "Clearing of FRAM failed."},
        {"load", 5, Work::load, nullptr},
        {"dump", 5, Work::dump, nullptr}};
    for (const Case& one : cases) {
        const Snapshot before = filled(one.entries);
        restore(before);
        chip.clearRecord();
        work(one.work);
        const std::uint64_t transfers = chip.transferCount();
        for (std::uint64_t at = 1; at <= transfers; ++at) {
            for (const char* fault : {"fails once", "is cut short", "and all later ones fail"}) {
                SCOPED_TRACE(std::string(one.name) + ": transfer " + std::to_string(at) + ' ' +
                             fault);
                restore(before);
                said();
                sink.filled = one.work != Work::load;
                if (*fault == 'f')
                    chip.failTransfer(at);
                else if (*fault == 'i')
                    chip.cutTransfer(at, at % 2); // of the shortest address transfer's two bytes
                else
                    chip.failFrom(at);
                work(one.work);
                const bool dead = *fault == 'a' && at == 1 && one.verdict != nullptr;
                ASSERT_TRUE(!dead || said().back() == one.verdict);
                ASSERT_FALSE(sink.isLocked());
                chip.clearFaults();
                if (one.work == Work::append && one.entries < fullChip) {
                    restartProcess();
                    load();
                    ASSERT_NO_FATAL_FAILURE(expectNothingLost(one.entries, false));
                }
                append("well again");
                ASSERT_EQ(flush(), 0);
                ASSERT_EQ(sink.written.back().message, "well again");
            }
        }
    }
}

class ChipImageTest : public DurabilityTest {
protected:
    // Whatever the chip holds, every operation ends, and a flush leaves an empty cache behind.
    void expectSurvived() {
        load();
        work(Work::dump);
        if (flush() == 0) {
            load();
            const std::vector<std::string> texts = said();
            ASSERT_EQ(texts.back(), "info: 0 log entries read from cache.");
        }
        append("after");
        ASSERT_EQ(sink.recent.back().message, "after");
        ASSERT_EQ(flush(), 0);
        ASSERT_EQ(sink.written.back().message, "after");
    }
    void flip(std::size_t bit) {
        poke(bit / 8, {static_cast<std::uint8_t>(bytes(bit / 8, 1)[0] ^ (1U << bit % 8))});
    }
    static constexpr std::size_t copyBits = 18 * 8;
};

TEST_F(ChipImageTest, oneWrongBitOfTheHeadersCostsNothingAndOneInEachIsSeen) {
    const Snapshot before = filled(3);
    for (std::size_t bit = 0; bit < 2 * copyBits; ++bit) {
        restore(before);
        flip(bit);
        load();
        ASSERT_EQ(sink.recent, before.cached) << bit;
        ASSERT_EQ(chip.image(), before.image) << bit;
    }
    for (std::size_t pair = 0; pair < copyBits * copyBits; pair += stride(13)) {
        restore(before);
        flip(pair / copyBits);
        flip(copyBits + pair % copyBits);
        load();
        ASSERT_TRUE(sink.recent.empty()) << pair;
        ASSERT_NO_FATAL_FAILURE(expectSurvived()) << pair;
    }
}

TEST_F(ChipImageTest, aWrongBitInARecordEndsNoOperation) {
    const Snapshot before = filled(fullChip);
    for (std::size_t bit = 36 * 8; bit < 8192 * 8; bit += stride(59)) {
        restore(before);
        flip(bit);
        ASSERT_NO_FATAL_FAILURE(expectSurvived()) << bit;
    }
}

TEST_F(ChipImageTest, anyContentUnderValidHeadersIsSurvived) {
    const Snapshot before = filled(40);
    for (std::uint32_t seed = 0; seed < 20000; seed += static_cast<std::uint32_t>(stride(23))) {
        std::mt19937 random(seed);
        restore(before);
        framEmulator::Image image = before.image;
        for (std::size_t count = random() % 40; count > 0; --count)
            image[random() % image.size()] = static_cast<std::uint8_t>(random());
        if (seed % 3 == 0)
            for (std::uint8_t& byte : image)
                byte = static_cast<std::uint8_t>(random());
        // Headers over any end and count, also one of whole records' ends.
        const std::uint32_t end = static_cast<std::uint32_t>(
            seed % 2 == 0 ? random() % 65536 : 36 + 115 * (random() % 72));
        const auto block =
            qwk::framLayout::encodeHeader({end, static_cast<std::uint32_t>(random() % 65536),
                                           static_cast<std::uint32_t>(random())});
        std::copy(block.begin(), block.end(), image.begin());
        chip.setImage(image);
        ASSERT_NO_FATAL_FAILURE(expectSurvived()) << "seed " << seed;
    }
}
