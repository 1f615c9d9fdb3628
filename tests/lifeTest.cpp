// Long lives of a board, by chance and from a printed seed: appends of all sizes, flushes, clears,
// restarts, power cuts, resets and bus faults, at any byte. A model says after every step what the
// chip and the log must hold. QUILLWICK_CYCLES is the number of power cycles, 2000 without it.

#include <chrono>
#include <cstdlib>
#include <random>

#include "support/modelledBoard.h"

using namespace testSupport;

namespace {

class LifeTest : public ModelledBoard {
protected:
    // One life of a board, which begins with a new chip and an empty log file.
    void live(std::uint32_t seed, std::uint32_t cycles) {
        random.seed(seed);
        steps.clear();
        restore({});
        // What sets lives apart: their faults, how often they flush and how much they say.
        hasBusFaults = oneIn(3);
        hasResets = oneIn(3);
        flushesOneIn = 3U << (2 * upTo(3));
        longest = 20 + upTo(1) * 280;
        for (; cycles > 0 && !HasFatalFailure(); --cycles)
            cycle();
    }
    std::string steps;

private:
    std::uint32_t upTo(std::uint32_t highest) {
        return static_cast<std::uint32_t>(random() % (highest + 1));
    }
    bool oneIn(std::uint32_t count) { return random() % count == 0; }
    void note(const char* what, std::uint32_t number = 0, std::uint32_t other = 0) {
        steps += what + (' ' + std::to_string(number) + ' ' + std::to_string(other) + '\n');
    }

    // From one start of the board to the end of its power.
    void cycle() {
        for (std::uint32_t count = upTo(20); count > 0 && !HasFatalFailure(); --count)
            step();
        const std::uint32_t at = upTo(oneIn(4) ? 6000 : 400);
        const std::uint32_t ending = hasResets && oneIn(2) ? warmReset : upTo(randomBits);
        note("cut after this many bytes, with this ending", at, ending);
        endAfter(at, ending);
        while (chip.isPowered() && !HasFatalFailure())
            step();
        comeBack(oneIn(2));
        note("start");
    }
    void step() {
        for (int faults = hasBusFaults && oneIn(8) ? 1 + oneIn(3) : 0; faults > 0; --faults) {
            const std::uint32_t number = 1 + upTo(30), bytes = upTo(20);
            const bool isShort = oneIn(3);
            note(isShort ? "transfer cut short" : "transfer fails", number, bytes);
            isShort ? chip.cutTransfer(number, bytes) : chip.failTransfer(number);
        }
        if (oneIn(30)) {
            note("restart");
            restart();
        }
        const std::uint32_t kind = upTo(199);
        if (kind == 0) {
            note("clear");
            work(Work::clear);
        } else if (kind % flushesOneIn == 1) {
            note("flush");
            work(Work::flush);
        } else {
            const auto message = std::to_string(now.messages++) + std::string(upTo(longest), '.');
            note("append of this length", static_cast<std::uint32_t>(message.size()));
            work(Work::append, message);
        }
    }

    std::mt19937 random;
    bool hasBusFaults = false, hasResets = false;
    std::uint32_t flushesOneIn = 0, longest = 0;
};

} // namespace

TEST_F(LifeTest, keepsEveryPromise) {
    const char* wanted = std::getenv("QUILLWICK_CYCLES");
    const auto cycles = static_cast<std::uint32_t>(wanted != nullptr ? std::stoul(wanted) : 2000);
    constexpr std::uint32_t cyclesOfALife = 100, seeds = 99999;
    const auto chosen = static_cast<std::uint32_t>(testing::GTEST_FLAG(random_seed));
    const std::uint32_t first = chosen != 0 ? chosen : 1 + std::random_device()() % seeds;
    std::printf("--gtest_random_seed=%u\n", first);
    const auto start = std::chrono::steady_clock::now();
    for (std::uint32_t life = 0; life < cycles / cyclesOfALife; ++life) {
        const std::uint32_t seed = 1 + (first - 1 + life) % seeds;
        live(seed, cyclesOfALife);
        if (HasFatalFailure()) {
            std::printf("Fails again with --gtest_random_seed=%u\n", seed);
            std::printf("%s", steps.c_str());
            return;
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%u power cycles, %.0f a second\n", cycles, cycles / elapsed.count());
    for (const auto& [reason, count] : losses)
        std::printf("%9zu losses: %s\n", count, reason.c_str());
}
