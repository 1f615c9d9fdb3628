#pragma once

#include <mutex>

// Annotations for clang's -Wthread-safety: which lock guards a member, and which lock the caller of
// a function must hold. Other compilers do not see them.
#ifdef __clang__
#define QWK_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define QWK_THREAD_SAFETY(attribute)
#endif

/// A class whose objects can be locked.
#define QWK_LOCKABLE QWK_THREAD_SAFETY(capability("lock"))
/// A member that is used only while `lock` is held.
#define QWK_GUARDED_BY(lock) QWK_THREAD_SAFETY(guarded_by(lock))
/// The caller holds the lock; the caller does not hold it.
#define QWK_REQUIRES(...) QWK_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define QWK_EXCLUDES(...) QWK_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
/// A function that takes, or releases, the lock.
#define QWK_ACQUIRES(...) QWK_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define QWK_RELEASES(...) QWK_THREAD_SAFETY(release_capability(__VA_ARGS__))
/// A function whose locking clang cannot follow; the reason is beside it.
#define QWK_UNCHECKED QWK_THREAD_SAFETY(no_thread_safety_analysis)

namespace qwk {

/// std::mutex, visible to clang's analysis.
class QWK_LOCKABLE Mutex {
public:
    void lock() QWK_ACQUIRES() { mutex_.lock(); }
    void unlock() QWK_RELEASES() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a lock for as long as it lives, or until unlock().
template<typename Lockable>
class QWK_THREAD_SAFETY(scoped_lockable) Held {
public:
    explicit Held(Lockable& lock) QWK_ACQUIRES(lock) : lock_(lock) { lock_.lock(); }
    ~Held() QWK_RELEASES() {
        if (held_)
            lock_.unlock();
    }

    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    void unlock() QWK_RELEASES() {
        held_ = false;
        lock_.unlock();
    }

private:
    Lockable& lock_;
    bool held_ = true;
};

} // namespace qwk
