#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <poll.h>
#include <thread>
#include <vector>

#include "support/fileDescriptor.h"

namespace qwk {

/// The descriptors that the service manager handed to this process, if any. A failure is reported.
/// Call it before the process opens anything: the manager may announce more than it hands over, and
/// the surplus numbers would soon belong to something else.
std::vector<FileDescriptor> takeHandedOverDescriptors();

/// Hints that an entry is on its way into the journal. journald tells its readers of a new entry up
/// to half a second late. But it forwards each message at once to a syslog socket, and the kernel's
/// log shows each record at once. The service manager can hand over descriptors of both. Whatever
/// becomes readable on them is read and thrown away: it is a reason to look at the journal, no
/// more. A thread of its own keeps the descriptors empty while the main thread is busy. Without
/// descriptors there is no thread, and every wait is as if this class did not exist.
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

    /// Becomes readable with a hint: for poll() beside the journal's descriptor. -1 when there are
    /// no descriptors, and in the shortest pause between two looks.
    int descriptor() const;
    /// The time-out of that poll(), in milliseconds; -1 for none. An entry may reach the journal a
    /// little after its hint: the journal is looked at again soon, then less and less often.
    int timeout() const;
    /// Takes the outcome of that poll(): its result, and the events of the descriptor.
    void polled(int result, short events);
    /// To be called for each entry that is read from the journal.
    void entryCame();

private:
    struct Source {
        FileDescriptor descriptor;
        bool isDatagramSocket; // it may read an empty message; elsewhere 0 is the end of the input
    };

    void add(FileDescriptor descriptor);
    void startThread();
    /// Reads all sources until the object ends. Runs on the thread.
    void drainAll();
    /// Reads nothing for the time `rest`, in which the datagram sockets stay empty all the same.
    void sitOutFlood(std::chrono::milliseconds rest);
    /// drain() for a source that the thread polled. Closes it, and returns 0, after the last hint.
    int drainOrDrop(std::size_t index);
    /// Reads what is there, up to the size of a flood. `events` are poll()'s. Returns the number of
    /// hints; -1, reported, when nothing more can come.
    static int drain(const Source& source, short events);

    /// The thread's, once it runs.
    std::vector<Source> sources_;
    /// What the thread polls: the sources in their order, then stop_. A source that was dropped is
    /// -1 in it.
    std::vector<pollfd> polled_;

    FileDescriptor stop_;  // becomes readable when the thread is to end
    FileDescriptor hints_; // counts the hints that the main thread has not taken
    std::thread thread_;

    // The main thread's.
    std::uint64_t awaited_ = 0;           // entries that were announced and have not come
    std::chrono::milliseconds pause_{0};  // until the next look, while entries are awaited
    std::chrono::milliseconds waited_{0}; // in vain, since the last hint or entry
};

} // namespace qwk
