// What survives: a power cut or a reset after every byte on the bus, a fault of every transfer, and
// chips of any content. QUILLWICK_MATRIX=full runs every case; otherwise large matrices are
// sampled.

#include <cstdlib>
#include <random>
#include <set>

#include "support/directChip.h"

using namespace testSupport;

namespace {

// Every how manieth case of a large matrix is run. Primes, so that all positions take their turn.
std::size_t stride(std::size_t sampled) {
    const char* matrix = std::getenv("QUILLWICK_MATRIX");
    return matrix != nullptr && std::string(matrix) == "full" ? 1 : sampled;
}

// The chip and the log file at a moment when both are well.
struct Snapshot {
    framEmulator::Image image{};
    Lines written;
    Lines cached;
};

enum class Work { append, flush, clear, load, dump };
enum class Fault { once, cutShort, forGood };
// How a cut ends: with the last byte new, old or of random bits; or the board is reset, the chip
// keeps its supply, and the recovery of the bus stores one more byte behind an unfinished write.
enum Ending : unsigned { newValue, oldValue, randomBits, warmReset, endings };

class DurabilityTest : public DirectBoard {
protected:
    DurabilityTest() {
        chip.setRecording(false);
        // A line is on stable storage when the lock is released, if there still is power then.
        sink.onUnlock = [this] {
            if (chip.isPowered())
                stable = sink.written.size();
        };
    }

    // Texts tell their number, so that a number that names two entries is found.
    std::string text(std::size_t number) const {
        return std::string(94, 'm') + std::to_string(100000 + number);
    }
    void restore(const Snapshot& moment, Work coming = Work::append) {
        chip.setImage(moment.image);
        sink.written = moment.written;
        stable = sink.written.size();
        next = moment.written.size() + moment.cached.size();
        comeBack(true);
        sink.filled = coming != Work::load;
    }
    // The board comes back after a cut. Lines that were not on stable storage may be gone.
    void comeBack(bool unsyncedLinesSurvive) {
        chip.clearFaults();
        chip.powerOn();
        if (!unsyncedLinesSurvive)
            sink.written.resize(std::min(stable, sink.written.size()));
        sink.recent.clear(); // a new process, which knows the log file
        sink.filled = false;
        sink.nextId = sink.written.empty() ? 0 : sink.written.back().id + 1;
        takeDiagnostics();
    }
    // What the log file and the loaded chip hold, without repetitions.
    std::set<std::pair<std::uint32_t, std::string>> entries() const {
        std::set<std::pair<std::uint32_t, std::string>> all;
        for (const auto& part : {sink.written, sink.recent})
            for (const Line& line : part)
                all.emplace(line.id, line.message);
        return all;
    }
    // Each of the first `required` entries is there, at most one more is, and every number has one
    // text and no gap before it.
    void expectNothingLost(std::size_t required, bool linesMayComeTwice) {
        std::uint32_t count = 0;
        for (const auto& [id, message] : entries()) {
            ASSERT_EQ(id, count++);
            ASSERT_EQ(message, text(id));
        }
        ASSERT_TRUE(count == required || count == required + 1);
        ASSERT_TRUE(linesMayComeTwice || sink.written.size() + sink.recent.size() == count);
    }
    void expectAppendWorks(const std::string& message) {
        append(message);
        ASSERT_FALSE(sink.recent.empty());
        ASSERT_EQ(sink.recent.back().message, message);
        ASSERT_EQ(openEeprom().flush(), 0);
        ASSERT_EQ(sink.written.back().message, message);
    }
    // A new chip with this many entries, flushed or not, and one byte of it wrong.
    Snapshot filled(std::size_t entries, bool flushed = false, std::size_t damaged = notDamaged) {
        restore({});
        while (next < entries)
            work(Work::append);
        if (flushed)
            openEeprom().flush();
        if (damaged != notDamaged)
            flip(8 * damaged);
        return {chip.image(), sink.written, sink.recent};
    }
    void work(Work kind) {
        kind == Work::append  ? append(text(next++))
        : kind == Work::flush ? void(openEeprom().flush())
        : kind == Work::clear ? void(openEeprom().clear())
        : kind == Work::load  ? load()
                              : void(openEeprom().hexDump(devNull.get()));
    }
    void flip(std::size_t bit) {
        poke(bit / 8, {static_cast<std::uint8_t>(bytes(bit / 8, 1)[0] ^ (1U << bit % 8))});
    }

    void endAfter(std::uint64_t bytes, unsigned ending) {
        if (ending == warmReset)
            chip.resetMasterAfter(bytes);
        else
            chip.cutPowerAfter(bytes, static_cast<framEmulator::TornByte>(ending),
                               static_cast<std::uint32_t>(bytes));
    }
    static bool isValid(const framEmulator::Image& image, std::size_t copy) {
        const std::uint8_t* block = &image[18 * copy];
        return qwk::framLayout::storedCrc(block) == qwk::framLayout::computedCrc(block);
    }
    // The recovery after a reset stores its byte also behind the address of a read. Where that
    // costs entries, the byte is all that is wrong: put right, it brings every entry back.
    void putSpoiledByteRight(const framEmulator::Image& known) {
        framEmulator::Image image = chip.image();
        const bool headersSpoiled = !isValid(image, 0) && !isValid(image, 1);
        if (headersSpoiled && !isValid(known, 0) && !isValid(known, 1))
            return; // a new chip
        const auto header = qwk::framLayout::decodeHeader(&image[isValid(image, 0) ? 0 : 18]);
        for (std::size_t at = headersSpoiled ? 0 : 36; at < (headersSpoiled ? 36 : header.end);
             ++at)
            if (image[at] == 0xff && known[at] != 0xff) {
                const bool isKey = !headersSpoiled && (at == 36 || known[at] == 'l');
                load();
                ASSERT_EQ(takeDiagnostics().find("corrupted") != std::string::npos, isKey);
                image[at] = at == 36 ? std::uint8_t{'l'} : known[at];
                spoiledHeaders += isOnlyCut && headersSpoiled;
                spoiledChains += isOnlyCut && isKey;
                spoiledPriorities += isOnlyCut && !headersSpoiled && !isKey;
            }
        chip.setImage(image);
        sink.recent.clear();
        sink.filled = false;
    }
    // Cuts the power in the work, then perhaps also in the recovery, and checks what is left. Each
    // cut is one point of the matrix.
    void cut(const Snapshot& before, Work kind, std::uint64_t first, unsigned ending,
             std::uint64_t second = never) {
        SCOPED_TRACE(testing::Message() << "cut after byte " << first << " and, in the recovery, "
                                        << second << ", ending " << ending);
        const bool unsyncedLinesSurvive = (first + ending) % 2 == 0;
        restore(before, kind);
        std::size_t required = next;
        endAfter(first, ending);
        isOnlyCut = second == never;
        work(kind);
        if (kind == Work::append && chip.isPowered())
            required = next; // it has returned
        comeBack(unsyncedLinesSurvive);
        if (kind != Work::clear)
            ASSERT_NO_FATAL_FAILURE(putSpoiledByteRight(before.image));
        stateIsNew = states.emplace(chip.image(), sink.written.size()).second;
        if (second != never) {
            const framEmulator::Image known = chip.image();
            endAfter(second, static_cast<unsigned>((first + second) % endings));
            load();
            openEeprom().flush();
            cutReached = !chip.isPowered();
            comeBack((first + second) % 2 == 0);
            ASSERT_NO_FATAL_FAILURE(putSpoiledByteRight(known));
        }
        ++points;
        const bool copy0Broken = !isValid(chip.image(), 0);
        load();
        ASSERT_EQ(takeDiagnostics().find("corrupted"), std::string::npos);
        if (kind != Work::clear) // which takes the entries, as asked for
            expectNothingLost(required,
                              kind == Work::flush || required == fullChip || second != never);
        // Where the first cut left copy 1 as it was, a second one in copy 0 brings the older state
        // back, and the number of an entry that has reached the log file is given again.
        const bool olderState = kind == Work::append && second != never && copy0Broken &&
                                bytes(18, 18) == Bytes(&before.image[18], &before.image[36]);
        const std::size_t number = entries().size();
        expectAppendWorks(text(number));
        ASSERT_TRUE(sink.written.back().id == number ||
                    (olderState && sink.written.back().id + 1 == number));
    }
    // Whatever the chip holds, every operation ends, and a flush leaves an empty cache behind.
    void expectSurvived() {
        load();
        work(Work::dump);
        if (openEeprom().flush() == 0) {
            takeDiagnostics();
            load();
            ASSERT_EQ(takeDiagnostics(), "info: 0 log entries read from cache.|");
        }
        expectAppendWorks("after");
    }

    static constexpr std::size_t notDamaged = SIZE_MAX;
    static constexpr std::uint64_t never = UINT64_MAX;
    static constexpr std::size_t fullChip = 70; // entries of 100 bytes
    std::size_t next = 0;                       // number of the next entry
    std::size_t stable = 0;                     // lines of the log file that no power cut takes
    std::size_t points = 0;
    bool isOnlyCut = false;
    std::size_t spoiledHeaders = 0, spoiledChains = 0, spoiledPriorities = 0;
    // What the last point's first cut left was not met before; its second cut was reached.
    bool stateIsNew = false;
    bool cutReached = false;
    std::set<std::pair<framEmulator::Image, std::size_t>> states;
};
using ChipImageTest = DurabilityTest;

struct Scenario {
    const char* name;
    std::size_t entries; // in the chip before
    Work work;
    std::size_t sampled;            // every how manieth cut
    std::size_t damaged = SIZE_MAX; // the byte that is wrong
    bool flushed = false;           // the entries are in the log file, and the cache is empty
};
class PowerCutTest : public DurabilityTest, public testing::WithParamInterface<Scenario> {
public:
    static constexpr Scenario scenarios[] = {
        {"appendIntoANewChip", 0, Work::append, 1},
        {"appendIntoAnEmptyCache", 2, Work::append, 1, notDamaged, true},
        {"appendIntoAFilledCache", 5, Work::append, 1},
        {"appendThatFillsTheChip", fullChip - 1, Work::append, 1},
        {"appendOverTheEndOfAWriteChunk", 35, Work::append, 1},
        {"appendThatFlushesFirst", fullChip, Work::append, 11},
        {"flush", 5, Work::flush, 1},
        {"flushOfAFullChip", fullChip, Work::flush, 11},
        {"clear", 5, Work::clear, 5},
        {"repairOfCopy0", 5, Work::load, 1, 10},
        {"repairOfCopy1", 5, Work::load, 1, 28}};
};
INSTANTIATE_TEST_SUITE_P(At, PowerCutTest, testing::ValuesIn(PowerCutTest::scenarios),
                         [](const auto& instance) { return instance.param.name; });

} // namespace

TEST_P(PowerCutTest, everyByteLosesNothing) {
    const auto& [name, entries, kind, sampled, damaged, flushed] = GetParam();
    const Snapshot before = filled(entries, flushed, damaged);
    restore(before, kind);
    chip.clearRecord();
    work(kind);
    const std::uint64_t wireBytes = chip.wireBytes();
    for (std::uint64_t at = 0; at <= wireBytes; at += stride(sampled)) {
        for (unsigned ending = newValue; ending < endings; ++ending) {
            ASSERT_NO_FATAL_FAILURE(cut(before, kind, at, ending));
            // A recovery of few entries: the headers, perhaps a repair, the entries, the reset.
            cutReached = entries <= 5 && stateIsNew;
            for (std::uint64_t second = at % 7; cutReached; second += stride(61))
                ASSERT_NO_FATAL_FAILURE(cut(before, kind, at, ending, second));
        }
    }
    std::printf("%s: %zu cut points; resets that spoil headers %zu, a chain %zu, a "
                "priority %zu\n",
                name, points, spoiledHeaders, spoiledChains, spoiledPriorities);
}

TEST_F(DurabilityTest, everyTransferFailsOnceIsCutShortAndFailsForGood) {
    const std::string undone = "Writing log to FRAM cache failed.|";
    // The entries before, the work, and what is said last when every transfer fails.
    const std::tuple<std::size_t, Work, std::string> cases[] = {
        {5, Work::append, undone}, {fullChip, Work::append, undone},
        {5, Work::flush, ""},      {5, Work::clear, "Clearing of FRAM failed.|"},
        {5, Work::load, ""},       {5, Work::dump, ""}};
    for (const auto& [entries, kind, verdict] : cases) {
        const Snapshot before = filled(entries);
        restore(before);
        chip.clearRecord();
        work(kind);
        const std::uint64_t transfers = chip.transferCount();
        for (std::uint64_t at = 1; at <= transfers; ++at) {
            for (const Fault fault : {Fault::once, Fault::cutShort, Fault::forGood}) {
                SCOPED_TRACE(testing::Message()
                             << "work " << static_cast<int>(kind) << ", transfer " << at
                             << ", fault " << static_cast<int>(fault));
                restore(before, kind);
                fault == Fault::once ? chip.failTransfer(at)
                : fault == Fault::cutShort
                    ? chip.cutTransfer(at, at % 2) // an address has two bytes
                    : chip.failFrom(at);
                work(kind);
                const std::string texts = takeDiagnostics();
                if (fault == Fault::forGood && at == 1)
                    ASSERT_EQ(texts.substr(verdict.empty() ? 0 : texts.rfind(verdict)), verdict);
                ASSERT_FALSE(sink.isLocked);
                chip.clearFaults();
                if (kind != Work::flush && kind != Work::clear && entries < fullChip) {
                    comeBack(true);
                    load();
                    ASSERT_NO_FATAL_FAILURE(expectNothingLost(entries, false));
                }
                ASSERT_NO_FATAL_FAILURE(expectAppendWorks("well again"));
            }
        }
    }
}

TEST_F(ChipImageTest, oneWrongBitOfTheHeadersCostsNothingAndOneInEachIsSeen) {
    constexpr std::size_t copyBits = 18 * 8;
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
