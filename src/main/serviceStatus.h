#pragma once

#include <cstdint>
#include <ctime>

namespace qwk {

/// Reports the daemon's state to the service manager, which shows it as the daemon's status. One
/// line is sent whenever the state changes, and none if the environment has no NOTIFY_SOCKET. Used
/// by the main thread only.
class ServiceStatus {
public:
    /// Sets up the time zone. Create it before other threads run: they convert times under a lock
    /// that this object does not know.
    ServiceStatus();

    /// Start-up is over; the state is that entries are stored, until another one is reported.
    void ready();
    void stopping();

    void waitForJournal() { enter(State::waitingForJournal); }
    void waitForDevice() { enter(State::waitingForDevice); }
    /// The last entry was stored, or the journal exists now.
    void store() { enter(State::storing); }
    /// The last entry was not stored. The line is sent again whenever their number has doubled.
    void failToStore();

    /// For a process that ends immediately because another daemon runs. To the service manager the
    /// start has succeeded, so it does not repeat it.
    static void giveWay();

private:
    enum class State { storing, waitingForJournal, waitingForDevice, chipSilent };

    void enter(State state);
    void tell() const;

    State state_ = State::storing;
    std::time_t since_ = 0;
    /// Entries since the chip fell silent, which are in memory only.
    std::uint32_t unstored_ = 0;
};

} // namespace qwk
