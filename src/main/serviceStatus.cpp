#include "main/serviceStatus.h"

#include <systemd/sd-daemon.h>

#include "support/paths.h"

namespace qwk {

namespace {

constexpr int keepEnvironment = 0;

// Local time, as in log lines.
struct TimeText {
    explicit TimeText(std::time_t time) {
        std::tm local{};
        if (localtime_r(&time, &local) != nullptr)
            static_cast<void>(std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local));
    }
    char text[32] = "?";
};

} // namespace

ServiceStatus::ServiceStatus() {
    tzset();
}

void ServiceStatus::ready() {
    static_cast<void>(sd_notify(keepEnvironment, "READY=1"));
    tell();
}

void ServiceStatus::stopping() {
    static_cast<void>(sd_notify(keepEnvironment, "STOPPING=1\nSTATUS=Stopping."));
}

void ServiceStatus::failToStore() {
    enter(State::chipSilent);
    ++unstored_;
    if ((unstored_ & (unstored_ - 1)) == 0)
        tell();
}

void ServiceStatus::giveWay() {
    // The manager reads the messages of a process before it notices the end of that process.
    static_cast<void>(sd_notify(keepEnvironment, "READY=1\nSTATUS=Another daemon runs already."));
}

void ServiceStatus::enter(State state) {
    if (state == state_)
        return;
    state_ = state;
    since_ = std::time(nullptr);
    unstored_ = 0;
    if (state != State::chipSilent) // failToStore reports this state
        tell();
}

// After a failure the manager shows an older line; there is no one else to inform.
void ServiceStatus::tell() const {
    switch (state_) {
    case State::storing:
        static_cast<void>(sd_notify(keepEnvironment, "STATUS=Storing entries."));
        break;
    case State::waitingForJournal:
        static_cast<void>(sd_notifyf(keepEnvironment, "STATUS=Waiting for a journal under %s.",
                                     journalFolderPath));
        break;
    case State::waitingForDevice:
        static_cast<void>(sd_notifyf(keepEnvironment, "STATUS=Waiting for %s since %s.",
                                     eepromDevicePath, TimeText(since_).text));
        break;
    case State::chipSilent:
        static_cast<void>(
            sd_notifyf(keepEnvironment,
                       "STATUS=The chip has not answered since %s. Entries in memory only: %u.",
                       TimeText(since_).text, unstored_));
        break;
    }
}

} // namespace qwk
