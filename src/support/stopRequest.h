#pragma once

#include <atomic>
#include <chrono>

#include "support/fileDescriptor.h"

namespace qwk {

/// A signal's request that the daemon stop. A wait that watches the descriptor cannot miss a
/// request made just before the wait began.
class StopRequest {
public:
    StopRequest();

    /// Records the first signal and wakes every present and future wait. Async-signal-safe.
    void request(int signal) noexcept;

    bool isRequested() const { return signal_.load() != 0; }
    /// The first signal that requested the stop; 0 before that.
    int signal() const { return signal_.load(); }

    /// Becomes readable with the request and stays readable: for poll() with other descriptors.
    int descriptor() const { return descriptor_.get(); }

    /// Sleeps for `duration`, or until a stop is requested. Any thread may call it.
    void sleepFor(std::chrono::milliseconds duration) const;

private:
    FileDescriptor descriptor_;
    std::atomic<int> signal_{0};
    static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");
};

/// The process's one stop request, made by the first call. That call must come before a signal
/// handler uses it.
StopRequest& stopRequest();

} // namespace qwk
