// What survives: a power cut after every byte on the bus, a fault of every transfer, and chips of
// any content. QUILLWICK_MATRIX=full runs every case; otherwise large matrices are sampled.

#include <cstdlib>
#include <map>
#include <optional>
#include <random>

#include "support/board.h"

using namespace testSupport;
using framEmulator::TornByte;

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
        chip.setImage(moment.image);
        sink.written = moment.written;
        stable = sink.written.size();
        next = moment.written.size() + moment.cached.size();
        comeBack(true);
    }
    // The board comes back after a cut. Lines that were not on stable storage may be gone.
    void comeBack(bool unsyncedLinesSurvive) {
        chip.clearFaults();
        chip.powerOn();
        if (!unsyncedLinesSurvive)
            sink.written.resize(std::min(stable, sink.written.size()));
        restart(); // a new process, which knows the log file
        sink.nextId = sink.written.empty() ? 0 : sink.written.back().id + 1;
        said();
    }
    // Each of the first `required` entries is there, at most one more is, and every number has one
    // text and no gap before it.
    void expectNothingLost(std::size_t required, bool linesMayComeTwice) {
        std::map<std::uint32_t, std::string> entries;
        for (const auto& part : {sink.written, sink.recent})
            for (const Line& line : part) {
                ASSERT_EQ(line.message, text(line.id));
                entries[line.id] = line.message;
            }
        ASSERT_LE(entries.size(), required + 1);
        ASSERT_GE(entries.size(), required);
        ASSERT_TRUE(entries.empty() || entries.rbegin()->first == entries.size() - 1);
        ASSERT_TRUE(linesMayComeTwice ||
                    sink.written.size() + sink.recent.size() == entries.size());
    }
    void expectAppendWorks(const std::string& message) {
        append(message);
        ASSERT_EQ(sink.recent.back().message, message);
        ASSERT_EQ(flush(), 0);
        ASSERT_EQ(sink.written.back().message, message);
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
        kind == Work::append  ? appendNext()
        : kind == Work::flush ? void(flush())
        : kind == Work::clear ? void(clear())
        : kind == Work::load  ? load()
                              : use([&](qwk::Eeprom& eeprom) { eeprom.hexDump(nowhere.get()); });
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
        SCOPED_TRACE(testing::Message() << "cut after byte " << first << " and, in the recovery, "
                                        << (second ? std::to_string(*second) : "none")
                                        << ", torn byte kind " << static_cast<int>(torn));
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
        for (const std::string& message : said())
            ASSERT_EQ(message.find("corrupted"), std::string::npos) << message;
        if (kind != Work::clear) // which takes the entries, as asked for
            expectNothingLost(required, kind == Work::flush || required == fullChip || second);
        const std::uint32_t number = sink.recent.empty() ? sink.nextId : sink.recent.back().id + 1;
        expectAppendWorks(text(number));
        ASSERT_EQ(sink.written.back().id, number);
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
        {"append that fills the chip", fullChip - 1, Work::append, 11},
        {"append over the end of a write chunk", 35, Work::append, 7},
        {"append that flushes first", fullChip, Work::append, 97},
        {"flush", 5, Work::flush, 1},
        {"flush of a full chip", fullChip, Work::flush, 97},
        {"clear", 5, Work::clear, 17},
        {"repair of copy 0", 5, Work::load, 1, 10},
        {"repair of copy 1", 5, Work::load, 1, 28}};
    for (const Scenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        const Snapshot before = filled(scenario.entries, scenario.flushed, scenario.damagedByte);
        restore(before);
        sink.filled = scenario.work != Work::load;
        chip.clearRecord();
        work(scenario.work);
        const std::uint64_t bytes = chip.wireBytes();
        for (std::uint64_t at = 0; at <= bytes; at += stride(scenario.sampled)) {
            for (const TornByte torn :
                 {TornByte::newValue, TornByte::oldValue, TornByte::randomBits})
                ASSERT_NO_FATAL_FAILURE(cut(before, scenario.work, at, torn, std::nullopt,
                                            (at + static_cast<std::uint64_t>(torn)) % 2 == 0));
            // A recovery of few entries: the headers, perhaps a repair, the entries, the reset.
            for (std::uint64_t second = at % 7; scenario.entries <= 5 && second < 700;
                 second += stride(197))
                ASSERT_NO_FATAL_FAILURE(
                    cut(before, scenario.work, at, TornByte::randomBits, second, at % 2 == 0));
        }
    }
    std::printf("%zu cut points\n", points);
}

TEST_F(DurabilityTest, everyTransferFailsOnceIsCutShortAndFailsForGood) {
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
            for (const char* fault : {" fails once", " is cut short", " and all later ones fail"}) {
                SCOPED_TRACE(testing::Message() << one.name << ": transfer " << at << fault);
                restore(before);
                sink.filled = one.work != Work::load;
                if (fault[1] == 'f')
                    chip.failTransfer(at);
                else if (fault[1] == 'i')
                    chip.cutTransfer(at, at % 2); // of the shortest address transfer's two bytes
                else
                    chip.failFrom(at);
                work(one.work);
                const bool dead = fault[1] == 'a' && at == 1 && one.verdict != nullptr;
                ASSERT_TRUE(!dead || said().back() == one.verdict);
                ASSERT_FALSE(sink.isLocked());
                chip.clearFaults();
                if (one.work == Work::append && one.entries < fullChip) {
                    comeBack(true);
                    load();
                    ASSERT_NO_FATAL_FAILURE(expectNothingLost(one.entries, false));
                }
                ASSERT_NO_FATAL_FAILURE(expectAppendWorks("well again"));
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
            ASSERT_EQ(said().back(), "info: 0 log entries read from cache.");
        }
        expectAppendWorks("after");
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
        const auto number = [&] { return static_cast<std::uint32_t>(random()); };
        const std::uint32_t end = seed % 2 == 0 ? number() % 65536 : 36 + 115 * (number() % 72);
        const auto block = qwk::framLayout::encodeHeader({end, number() % 65536, number()});
        std::copy(block.begin(), block.end(), image.begin());
        chip.setImage(image);
        ASSERT_NO_FATAL_FAILURE(expectSurvived()) << "seed " << seed;
    }
}
