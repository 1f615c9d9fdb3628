#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <poll.h>
#include <thread>
#include <vector>

#include "support/fileDescriptor.h"
#include "support/threadSafety.h"

namespace qwk {

/// The descriptors that the service manager handed to this process, if any. A failure is reported.
/// Call it before the process opens anything: the manager may announce more than it hands over, and
/// the surplus numbers would soon belong to something else.
std::vector<FileDescriptor> takeHandedOverDescriptors();

/// Hints that an entry is on its way into the journal. journald tells its readers of a new entry up
/// to half a second late. But it forwards each message at once to a syslog socket, and the kernel's
/// log shows each record at once. The service manager can hand over descriptors of both. This class
/// reads everything that arrives on them and throws it away: it is a reason to look at the journal,
/// no more. The main thread reads while it waits. A thread of this class takes over when the main
/// thread works for long, and in a flood. Without descriptors there is no thread, and every wait is
/// as if this class did not exist.
///
/// The main thread alone uses an object.
class WakeUps {
public:
    /// Reports a descriptor that cannot be read and leaves it out. The handled signals must be
    /// blocked: the thread inherits that.
    explicit WakeUps(std::vector<FileDescriptor> descriptors);
    /// Returns when the thread has ended.
    ~WakeUps();

    WakeUps(const WakeUps&) = delete;
    WakeUps& operator=(const WakeUps&) = delete;

    /// Waits until the descriptor `journal` or `stop` is readable, a signal or a hint comes, or it
    /// is time for another look: an entry may reach the journal a little after its hint, so the
    /// next look is soon and later ones are less and less frequent. False when only a hint or the
    /// time ended the wait.
    bool wait(int journal, int stop);
    /// Call it for each entry that was read from the journal.
    void entryCame();
    /// Call it before the main thread does anything that may take long.
    void beginWork();

private:
    using Clock = std::chrono::steady_clock;

    struct Source {
        FileDescriptor descriptor; // none after it was dropped
        bool isDatagramSocket; // it may read an empty message; elsewhere 0 is the end of the input
    };

    /// Detects a flood, and determines the length of the rests in it.
    class FloodMeter {
    public:
        bool isFlood(int hints);
        std::chrono::milliseconds rest() const { return rest_; }
        void rested();

    private:
        void begin(Clock::time_point now);

        Clock::time_point start_;
        int hints_ = 0;
        std::chrono::milliseconds rest_{0};
    };

    void add(FileDescriptor descriptor);
    void startThread();
    static void abandon(Source& source);

    // The main thread's part.
    /// wait(), when there is a thread.
    bool waitForHints();
    /// True when the main thread is to read the sources in this wait.
    bool beginWait();
    void endWait(bool isFlood);
    void readBetweenEntries();
    void setRelief(std::chrono::nanoseconds time);
    /// In milliseconds; -1 for none.
    int timeout() const;
    /// Reads the hints that poll() has found in the first `count` elements of waited_.
    std::uint64_t takeHints(std::size_t count, bool& isFlood);
    void expect(std::uint64_t hints);
    void lookedInVain();

    // The thread's part.
    void run();
    /// Reads the sources until the main thread can. False when the object ends.
    bool readUntilMainWaits();
    /// Waits until the main thread has been busy for long, or meets a flood. False when the object
    /// ends.
    bool awaitTurn();
    bool giveBack();
    /// Reads nothing for some time, in which the datagram sockets stay empty all the same.
    void sitOutFlood();

    // The reader's part.
    /// Fills in one element for each of sources_.
    void prepareToPoll(pollfd* polled) const;
    /// Reads each source that poll() has found readable, in the order of sources_. Returns the
    /// number of hints.
    int drainReadable(const pollfd* polled);
    /// Reads until nothing is left, or up to the size of a flood. Returns the number of hints.
    /// `events` are poll()'s. Closes the source when nothing more can come.
    int drain(Source& source, short events);

    FileDescriptor stop_;   // becomes readable when the thread is to end
    FileDescriptor hints_;  // counts the hints that the thread has read and main has not taken
    FileDescriptor relief_; // a timer: runs while the main thread works
    std::thread thread_;

    /// A leaf lock.
    Mutex mutex_;
    bool mainWaits_ QWK_GUARDED_BY(mutex_) = false;
    /// Who reads: the thread, or the main thread in its waits.
    bool threadReads_ QWK_GUARDED_BY(mutex_) = true;

    // The reader's.
    std::vector<Source> sources_;
    FloodMeter meter_;

    /// Polled by the thread: the sources in their order, then stop_.
    std::vector<pollfd> polled_;

    // The main thread's.
    bool hasWaited_ = false;
    bool reads_ = false;          // unless the thread has taken over since the last wait
    bool isReliefComing_ = false; // relief_ runs, or has expired
    Clock::time_point workBegan_; // or the hints were read last, while it runs
    /// Polled by it: the journal, the stop, hints_, then the sources in their order.
    std::vector<pollfd> waited_;
    std::uint64_t awaited_ = 0;              // announced entries that have not come
    std::uint64_t early_ = 0;                // entries that came before their hints were taken
    std::chrono::milliseconds pause_{0};     // until the next look, while entries are awaited
    std::chrono::milliseconds lookedFor_{0}; // in vain, since the last hint or entry
};

} // namespace qwk
