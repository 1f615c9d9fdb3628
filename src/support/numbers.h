#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace qwk {

/// The number in 32 bits: one that does not fit becomes the nearest that does.
inline std::int32_t saturated(std::int64_t number) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

/// strtol() in base 10 with a `long` of 32 bits, so that a text means the same on every machine.
/// Sets `end` to the first character after the number; without a number, sets it to `text` and
/// returns 0.
inline std::int32_t parseDecimal(const char* text, const char*& end) {
    char* stop = nullptr;
    const long number = std::strtol(text, &stop, 10);
    end = stop;
    return saturated(number);
}

} // namespace qwk
