#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace qwk {

/// A mutex that is handed to its waiters in the order in which they came. With a plain one, a
/// thread that unlocks and locks in a loop can keep all others out for as long as the loop lasts.
class FairMutex {
public:
    void lock() {
        std::unique_lock<std::mutex> held(mutex_);
        const std::uint32_t ticket = tickets_++;
        turnChanged_.wait(held, [&] { return turn_ == ticket; });
    }

    void unlock() {
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
