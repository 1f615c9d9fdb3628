#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace qwk {

/// The number as it would be in 32 bits: one beyond them becomes the nearest that fits.
inline std::int32_t saturated(std::int64_t number) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

/// strtol() in base 10 as it is where `long` has 32 bits, so that a text means the same on every
/// machine. `end` is set to the first character after the number, or to `text` when there is none;
/// the result is 0 then.
inline std::int32_t parseDecimal(const char* text, const char*& end) {
    char* stop = nullptr;
    const long number = std::strtol(text, &stop, 10);
    end = stop;
    return saturated(number);
}

} // namespace qwk
