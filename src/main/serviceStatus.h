#pragma once

#include <cstdint>
#include <ctime>

namespace qwk {

/// Tells the service manager, which shows it to whoever asks for the daemon's status, what the
/// daemon does: in one line, sent when the state changes. A process whose environment has no
/// NOTIFY_SOCKET tells nobody. Used by the main thread only.
class ServiceStatus {
public:
    /// Sets up the time zone. Make it before other threads run: they convert times under a lock
    /// that this object does not know.
    ServiceStatus();

    /// Start-up is over; entries are stored from here on, until one of the following is told.
    void ready();
    void stopping();

    void waitForJournal() { enter(State::waitingForJournal); }
    void waitForDevice() { enter(State::waitingForDevice); }
    /// The last entry was stored, or the journal is there.
    void store() { enter(State::storing); }
    /// The last entry was not stored. The line is renewed when their number has doubled.
    void failToStore();

    /// For a process that ends at once because another daemon runs. The service manager has then
    /// seen a start that succeeded, and does not repeat it.
    static void giveWay();

private:
    enum class State { storing, waitingForJournal, waitingForDevice, chipSilent };

    void enter(State state);
    void tell() const;

    State state_ = State::storing;
    std::time_t since_ = 0;
    /// Entries of this state that are in memory only.
    std::uint32_t unstored_ = 0;
};

} // namespace qwk
