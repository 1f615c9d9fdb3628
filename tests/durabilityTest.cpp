// A power cut or a reset after every byte on the bus, a fault of every transfer, and chips of any
// content. After every operation a model gives the bytes that the chip and the log must hold.
// QUILLWICK_MATRIX=full runs every case; otherwise large matrices are sampled.

#include <cstdlib>
#include <random>
#include <set>

#include "decode/imageReader.h"
#include "support/modelledBoard.h"

using namespace testSupport;
using namespace qwk::decode;

namespace {

// A large matrix runs one case in so many. The strides are primes, so that every position gets its
// turn.
std::size_t stride(std::size_t sampled) {
    const char* matrix = std::getenv("QUILLWICK_MATRIX");
    return matrix != nullptr && std::string(matrix) == "full" ? 1 : sampled;
}

constexpr std::uint32_t entryLength = messageAt + 100;
constexpr std::size_t fullChip = 70; // entries
constexpr std::size_t notDamaged = SIZE_MAX;
// Faults after the endings of the power: they are at a transfer, not after a byte.
enum Fault : unsigned { failsOnce = endings, isCutShort, failsForGood, faults };

class DurabilityTest : public ModelledBoard {
protected:
    // Texts begin like a record and end with their number.
    std::string text(std::size_t number) const {
        return "log1\n" + std::string(isVaried ? number * 37 % 240 : 89, 'm') +
               std::to_string(firstText + number);
    }
    void append() { work(Work::append, text(now.messages++)); }
    void doWork(Work kind) { kind == Work::append ? append() : work(kind); }
    void flip(std::size_t bit) {
        framEmulator::Image image = model.image;
        image[bit / 8] = static_cast<std::uint8_t>(image[bit / 8] ^ 1U << bit % 8);
        setImage(image);
    }
    // A new chip with this many entries, after some that were flushed.
    Moment filled(std::size_t flushed, std::size_t entries) {
        restore({});
        while (now.messages < flushed)
            append();
        work(Work::flush);
        while (now.messages < flushed + entries)
            append();
        return now;
    }
    // The state before the work: the entries are loaded, unless the load is the work.
    void restore(const Moment& moment, Work coming = Work::append) {
        ModelledBoard::restore(moment);
        if (coming == Work::load)
            restart();
    }
    // Cuts the power in the work, or fails a transfer, then perhaps cuts the recovery, too. Each
    // cut and each fault is one point of the matrix.
    void cut(const Moment& before, Work kind, std::uint64_t first, unsigned ending,
             std::uint64_t second = never) {
        SCOPED_TRACE(testing::Message() << "cut after byte " << first << " and, in the recovery, "
                                        << second << ", ending " << ending);
        restore(before, kind);
        losses.clear();
        ending == failsOnce      ? chip.failTransfer(first)
        : ending == isCutShort   ? chip.cutTransfer(first, first % 2) // an address has two bytes
        : ending == failsForGood ? chip.failFrom(first)
                                 : endAfter(first, ending);
        ASSERT_NO_FATAL_FAILURE(doWork(kind));
        comeBack((first + ending) % 2 == 0);
        if (ending < endings)
            ASSERT_NO_FATAL_FAILURE(expectDecoded(before.model.image));
        stateIsNew = states.emplace(model.image, model.written.size()).second;
        if (second != never) {
            endAfter(second, static_cast<unsigned>((first + second) % endings));
            ASSERT_NO_FATAL_FAILURE(work(Work::flush));
            cutReached = !chip.isPowered();
            comeBack((first + second) % 2 == 0);
        }
        ++points;
        ASSERT_NO_FATAL_FAILURE(append());
        ASSERT_NO_FATAL_FAILURE(work(Work::flush));
        const bool mayLose = kind == Work::clear || ending >= warmReset || second != never;
        ASSERT_TRUE(losses.empty() || mayLose) << losses.begin()->first;
    }
    // quillwick-decode shows the entries of the cache with their numbers, every other one whose
    // bytes are as they were, each once, and invents none.
    void expectDecoded(const framEmulator::Image& before) {
        const Contents contents = readContents(model.image);
        const Lines stored = model.stored();
        ASSERT_GE(contents.entries.size(), stored.size());
        for (std::size_t i = 0; i < stored.size(); ++i) {
            ASSERT_EQ(contents.entries[i].certainty, Certainty::certain);
            ASSERT_EQ(contents.entries[i].id, stored[i].id);
        }
        std::set<std::string> seen;
        ASSERT_NO_FATAL_FAILURE(expectGiven(contents.entries, seen));
        for (const Section& section : contents.remains)
            ASSERT_NO_FATAL_FAILURE(expectGiven(section.entries, seen));
        for (const Record& record :
             scanRecords(before, entryAreaStart, chipSize, AreaEnd::unknown).records) {
            const auto old = before.begin() + record.address;
            const bool isIntact =
                std::equal(old, old + record.size, model.image.begin() + record.address);
            ASSERT_TRUE(!isIntact || seen.count(record.entry.message) == 1) << record.address;
        }
    }
    // The text of the record that was being stored may be half old, but then it has no number.
    void expectGiven(const std::vector<NumberedEntry>& entries, std::set<std::string>& seen) const {
        for (const auto& [address, certainty, id, entry] : entries) {
            const std::size_t digits =
                entry.message.size() - std::min<std::size_t>(entry.message.size(), 6);
            const std::size_t number =
                std::strtoul(&entry.message[digits], nullptr, 10) - firstText;
            const bool isGiven = number < now.messages && entry.message == text(number);
            if (!isGiven && certainty == Certainty::unknown)
                continue;
            ASSERT_TRUE(isGiven && seen.insert(entry.message).second) << entry.message;
            ASSERT_LE((id - number) * static_cast<unsigned>(certainty), 1U) << entry.message;
        }
    }
    static constexpr std::uint64_t never = UINT64_MAX;
    static constexpr std::size_t firstText = 100000;
    bool isVaried = false;
    std::size_t points = 0;
    // The last point's first cut left a new state; its second cut was reached.
    bool stateIsNew = false;
    bool cutReached = false;
    std::set<std::pair<framEmulator::Image, std::size_t>> states;
};

struct Scenario {
    const char* name;
    std::size_t flushed, entries; // before
    Work work;
    std::size_t sampled = 1;          // every how manieth cut
    std::size_t damaged = notDamaged; // the wrong byte
    bool isVaried = false;            // the texts' length
};
void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}
class FaultMatrixTest : public DurabilityTest, public testing::WithParamInterface<Scenario> {
public:
    static constexpr Scenario scenarios[] = {
        {"appendIntoANewChip", 0, 0, Work::append},
        {"appendIntoAnEmptyCache", 2, 0, Work::append},
        {"appendIntoAFilledCache", 60, 5, Work::append},
        {"appendOfVariedEntries", 20, 3, Work::append, 1, notDamaged, true},
        {"appendThatFillsTheChip", 0, fullChip - 1, Work::append},
        {"appendOverTheEndOfAWriteChunk", 0, 35, Work::append},
        {"appendThatFlushesFirst", 0, fullChip, Work::append, 11},
        {"flush", 60, 5, Work::flush},
        {"flushOfAFullChip", 0, fullChip, Work::flush, 11},
        {"clear", 60, 5, Work::clear, 5},
        {"repairOfCopy0", 0, 5, Work::load, 1, 10},
        {"repairOfCopy1", 0, 5, Work::load, 1, 28},
        {"dump", 0, 5, Work::dump, 61}};
};
INSTANTIATE_TEST_SUITE_P(At, FaultMatrixTest, testing::ValuesIn(FaultMatrixTest::scenarios),
                         [](const auto& instance) { return instance.param.name; });

} // namespace

TEST_P(FaultMatrixTest, noByteAndNoTransferCostsAnEntry) {
    const auto& [name, flushed, entries, kind, sampled, damaged, varied] = GetParam();
    isVaried = varied;
    filled(flushed, entries);
    if (damaged != notDamaged)
        flip(8 * damaged);
    const Moment before = now;
    restore(before, kind);
    doWork(kind);
    const std::uint64_t wireBytes = bytesOfWork, transfers = transfersOfWork;
    for (std::uint64_t at = 0; at <= wireBytes; at += stride(sampled))
        for (unsigned ending = newValue; ending < endings; ++ending) {
            ASSERT_NO_FATAL_FAILURE(cut(before, kind, at, ending));
            // A recovery of few entries: the headers, perhaps a repair, the entries, the reset.
            cutReached = entries <= 5 && stateIsNew;
            for (std::uint64_t second = at % 7; cutReached; second += stride(61))
                ASSERT_NO_FATAL_FAILURE(cut(before, kind, at, ending, second));
        }
    for (std::uint64_t at = 1; at <= transfers; ++at)
        for (unsigned fault = failsOnce; fault < faults; ++fault)
            ASSERT_NO_FATAL_FAILURE(cut(before, kind, at, fault));
    std::printf("%s: %zu points\n", name, points);
}

TEST_F(DurabilityTest, anyContentIsTakenAsTheModelSays) {
    const Moment before = filled(0, fullChip);
    for (std::uint32_t seed = 0; seed < 50000; seed += static_cast<std::uint32_t>(stride(19))) {
        std::mt19937 random(seed);
        const auto below = [&](std::uint32_t limit) {
            return static_cast<std::uint32_t>(random() % limit);
        };
        framEmulator::Image image = before.model.image;
        for (std::uint32_t count = seed % 16 == 0 ? 8 * chipSize : below(40); count > 0; --count)
            image[below(chipSize)] = static_cast<std::uint8_t>(below(256));
        for (const std::uint32_t copy : {0U, headerSize}) {
            // Any end, one of whole records or none, or one that leaves just room for one.
            const std::uint32_t ends[] = {below(65536), entryAreaStart + entryLength * below(72),
                                          entryAreaStart, chipSize - entryLength - 1 + below(3)};
            const auto block =
                encodeHeader({ends[below(4)], below(3) * below(40), below(UINT32_MAX)});
            if (below(3) > 0)
                std::copy(block.begin(), block.end(), &image[copy]);
            if (below(3) == 0)
                image[copy + below(headerSize)] ^= static_cast<std::uint8_t>(1U << below(8));
        }
        restore(before);
        setImage(image);
        now.isTrusted = false;
        restart();
        const Work first = below(2) == 0 ? Work::append : Work::flush;
        for (const Work kind : {Work::load, Work::dump, first, Work::flush, Work::append})
            ASSERT_NO_FATAL_FAILURE(doWork(kind)) << "seed " << seed;
    }
}
