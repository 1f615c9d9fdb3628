#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace testSupport {

// The printed seed of a random test; a new one each time, unless --gtest_random_seed sets it.
class Random : public std::mt19937 {
public:
    Random() : Random(static_cast<std::uint32_t>(testing::GTEST_FLAG(random_seed))) {}
    // A number from 0 to `highest`.
    std::uint32_t upTo(std::uint32_t highest) {
        return std::uniform_int_distribution<std::uint32_t>(0, highest)(*this);
    }
    bool oneIn(std::uint32_t count) { return upTo(count - 1) == 0; }

private:
    explicit Random(std::uint32_t wanted)
        : seed_(wanted != 0 ? wanted : 1 + std::random_device()() % 99999),
          trace_(__FILE__, __LINE__, "--gtest_random_seed=" + std::to_string(seed_)) {
        seed(seed_);
    }

    std::uint32_t seed_;
    testing::ScopedTrace trace_;
};

} // namespace testSupport
