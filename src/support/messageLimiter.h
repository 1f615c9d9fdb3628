#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace qwk {

/// Keeps a lasting fault from filling the journal. Each kind of message has an allowance: it starts
/// at 256 messages and regains one every 10 s, up to 256 again. So a burst is written completely, a
/// lasting fault every 10 s, and after 43 quiet minutes the allowance is full again.
///
/// Kinds beyond the table's size share one allowance; the daemon has fewer kinds. Any thread may
/// use an object; it never allocates.
class MessageLimiter {
public:
    using Clock = std::chrono::steady_clock;

    struct Verdict {
        bool isLetThrough;
        /// For a message that is let through: how many of its kind were held back since the last
        /// one. Saturates.
        std::uint32_t heldBack;
    };

    /// Counts one message of the kind `format`, which is compared by content and must outlive the
    /// limiter. `now` never goes back.
    Verdict admit(const char* format, Clock::time_point now);

private:
    static constexpr std::uint32_t fullAllowance = 256;
    static constexpr std::chrono::seconds regainPeriod{10};

    struct Kind {
        const char* format = nullptr; // null: not used yet
        std::uint32_t allowance = fullAllowance;
        std::uint32_t heldBack = 0;
        Clock::time_point regainedUntil;
    };

    // Both: the caller holds mutex_.
    Kind& kindOf(const char* format);
    static void regain(Kind& kind, Clock::time_point now);

    std::mutex mutex_;
    // Guarded by mutex_. All kinds that find no place share the last one.
    std::array<Kind, 64> kinds_;
};

} // namespace qwk
