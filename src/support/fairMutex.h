#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "support/threadSafety.h"

namespace qwk {

/// A mutex that its waiters get in the order of their calls. With a plain mutex, a thread that
/// unlocks and locks in a loop can keep all others out for as long as the loop lasts.
class QWK_LOCKABLE FairMutex {
public:
    void lock() QWK_ACQUIRES() {
        std::unique_lock<std::mutex> held(mutex_);
        const std::uint32_t ticket = tickets_++;
        turnChanged_.wait(held, [&] { return turn_ == ticket; });
    }

    void unlock() QWK_RELEASES() {
        const std::lock_guard<std::mutex> held(mutex_);
        ++turn_;
        turnChanged_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable turnChanged_;
    // Guarded by mutex_; both wrap.
    std::uint32_t tickets_ = 0;
    std::uint32_t turn_ = 0;
};

} // namespace qwk
