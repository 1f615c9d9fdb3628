#include "support/messageLimiter.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace qwk {

MessageLimiter::Verdict MessageLimiter::admit(const char* format, Clock::time_point now) {
    const std::lock_guard<std::mutex> held(mutex_);
    Kind& kind = kindOf(format);
    regain(kind, now);
    if (kind.allowance == 0) {
        if (kind.heldBack < std::numeric_limits<std::uint32_t>::max())
            ++kind.heldBack;
        return {false, 0};
    }
    --kind.allowance;
    const Verdict verdict{true, kind.heldBack};
    kind.heldBack = 0;
    return verdict;
}

MessageLimiter::Kind& MessageLimiter::kindOf(const char* format) {
    Kind* const shared = &kinds_.back();
    Kind* const found = std::find_if(kinds_.data(), shared, [&](const Kind& kind) {
        return kind.format == nullptr || kind.format == format ||
               std::strcmp(kind.format, format) == 0;
    });
    if (found->format == nullptr)
        found->format = format;
    return *found;
}

void MessageLimiter::regain(Kind& kind, Clock::time_point now) {
    const auto periods = (now - kind.regainedUntil) / regainPeriod;
    if (periods >= fullAllowance - kind.allowance) {
        // A full allowance gains nothing: its first period begins with its first use.
        kind.allowance = fullAllowance;
        kind.regainedUntil = now;
    } else {
        kind.allowance += static_cast<std::uint32_t>(periods);
        kind.regainedUntil += periods * regainPeriod;
    }
}

} // namespace qwk
