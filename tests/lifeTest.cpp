// Long random lives of a board, from a printed seed: appends of all sizes, flushes, clears,
// restarts, power cuts, resets and bus faults, at any byte. After every step a model gives the
// bytes that the chip and the log must hold. QUILLWICK_CYCLES sets the number of power cycles
// (default: 2000).

#include <cstdlib>

#include "support/modelledBoard.h"
#include "support/random.h"

using namespace testSupport;

namespace {

class LifeTest : public ModelledBoard {
protected:
    // One life of a board, which begins with a new chip and an empty log file.
    void live(std::uint32_t cycles) {
        restore({});
        // Lives differ in their faults, in how often they flush and in how much they log.
        hasBusFaults = random.oneIn(3);
        hasResets = random.oneIn(3);
        flushesOneIn = 3U << (2 * random.upTo(3));
        longest = 20 + random.upTo(1) * 280;
        for (; cycles > 0 && !HasFatalFailure(); --cycles)
            cycle();
    }

private:
    // From one start of the board to the end of its power.
    void cycle() {
        for (std::uint32_t count = random.upTo(20); count > 0 && !HasFatalFailure(); --count)
            step();
        const std::uint32_t at = random.upTo(random.oneIn(4) ? 6000 : 400);
        const std::uint32_t ending =
            hasResets && random.oneIn(2) ? warmReset : random.upTo(randomBits);
        endAfter(at, ending);
        while (chip.isPowered() && !HasFatalFailure())
            step();
        comeBack(random.oneIn(2));
    }
    void step() {
        for (int faults = hasBusFaults && random.oneIn(8) ? 1 + random.oneIn(3) : 0; faults > 0;
             --faults) {
            const std::uint32_t number = 1 + random.upTo(30), bytes = random.upTo(20);
            const bool isShort = random.oneIn(3);
            isShort ? chip.cutTransfer(number, bytes) : chip.failTransfer(number);
        }
        if (random.oneIn(30))
            restart();
        const std::uint32_t kind = random.upTo(199);
        if (kind == 0)
            work(Work::clear);
        else if (kind % flushesOneIn == 1)
            work(Work::flush);
        else
            work(Work::append,
                 std::to_string(now.messages++) + std::string(random.upTo(longest), '.'));
    }

    Random random;
    bool hasBusFaults = false, hasResets = false;
    std::uint32_t flushesOneIn = 0, longest = 0;
};

} // namespace

TEST_F(LifeTest, keepsEveryPromise) {
    const char* wanted = std::getenv("QUILLWICK_CYCLES");
    const auto cycles = static_cast<std::uint32_t>(wanted != nullptr ? std::stoul(wanted) : 2000);
    for (std::uint32_t life = 0; life < cycles / 100 && !HasFailure(); ++life)
        live(100);
    for (const auto& [reason, count] : losses)
        std::printf("%9zu losses: %s\n", count, reason.c_str());
}
