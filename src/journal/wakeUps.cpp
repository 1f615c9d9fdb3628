#include "journal/wakeUps.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <linux/filter.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <utility>

#include "support/diagnostics.h"

namespace qwk {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds firstPause = 1ms;
constexpr std::chrono::milliseconds longestWait = 500ms;

// The largest record of the kernel's log; a shorter read of it fails.
constexpr std::size_t bufferSize = 8192;

// This many hints in so short a time are a flood. While it lasts, the thread rests for longer and
// longer. Reading everything would take the processor from others, and the queue would still fill
// up whenever the thread does not run for a few milliseconds.
constexpr int floodSize = 32;
constexpr std::chrono::milliseconds floodPeriod = 10ms;
constexpr std::chrono::milliseconds firstRest = 10ms;
constexpr std::chrono::milliseconds longestRest = 80ms;

// After so much work without a wait the main thread hands the reading over. journald drops hints,
// and reports it, when the queue holds fewer messages than arrive in this time.
constexpr std::chrono::milliseconds longBusy = 10ms;
constexpr std::chrono::milliseconds readInterval = longBusy / 2;
constexpr std::chrono::nanoseconds atOnce = 1ns;
constexpr std::chrono::nanoseconds never = 0ns;

// The order in which the main thread polls.
constexpr std::size_t journalAt = 0;
constexpr std::size_t stopAt = 1;
constexpr std::size_t hintsAt = 2;
constexpr std::size_t firstSource = 3;

// Stands for an unknown number of entries: more than come before the journal is quiet again.
constexpr std::uint64_t untilQuiet = 1U << 20U;
constexpr std::chrono::milliseconds quietTime = 60ms;

bool makeNonBlocking(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

FileDescriptor makeEventDescriptor() {
    return FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

// While the gate is closed the kernel throws every datagram away, and the sender does not notice.
// The queue cannot fill up, so no one has to read it.
bool closeGate(const FileDescriptor& socket) {
    sock_filter nothing{BPF_RET | BPF_K, 0, 0, 0};
    const sock_fprog program{1, &nothing};
    return setsockopt(socket.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

void openGate(const FileDescriptor& socket) {
    const int unused = 0;
    // It fails for a gate that is open.
    static_cast<void>(
        setsockopt(socket.get(), SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused));
}

void addTo(const FileDescriptor& eventDescriptor, std::uint64_t count) {
    // It fails for a counter that is full. That is readable, too.
    static_cast<void>(!write(eventDescriptor.get(), &count, sizeof count));
}

void reportDropped(const FileDescriptor& source, const std::string& reason) {
    report(LOG_WARNING, "Dropped wake-up descriptor %d: %s", source.get(), reason.c_str());
}

} // namespace

std::vector<FileDescriptor> takeHandedOverDescriptors() {
    const int count = sd_listen_fds(1); // makes them close-on-exec
    std::vector<FileDescriptor> descriptors;
    if (count < 0) {
        report(LOG_WARNING, "Failed to take over wake-up descriptors: %s",
               errorText(-count).c_str());
        return descriptors;
    }
    descriptors.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        descriptors.emplace_back(SD_LISTEN_FDS_START + i);
    return descriptors;
}

WakeUps::WakeUps(std::vector<FileDescriptor> descriptors)
    : waited_(firstSource, pollfd{-1, POLLIN, 0}) {
    for (FileDescriptor& descriptor : descriptors)
        add(std::move(descriptor));
    if (!sources_.empty())
        startThread();
}

WakeUps::~WakeUps() {
    if (!thread_.joinable())
        return;
    addTo(stop_, 1);
    thread_.join();
}

void WakeUps::add(FileDescriptor descriptor) {
    const bool isDatagramSocket = sd_is_socket(descriptor.get(), AF_UNSPEC, SOCK_DGRAM, -1) > 0;
    Source source{std::move(descriptor), isDatagramSocket};
    if (isDatagramSocket)
        openGate(source.descriptor); // a daemon that was killed may have left it closed
    if (!makeNonBlocking(source.descriptor.get())) {
        reportDropped(source.descriptor, errorText(errno));
        return;
    }
    // The first read refuses descriptors that can never be read, such as a listening socket.
    drain(source, 0);
    if (source.descriptor.isOpen())
        sources_.push_back(std::move(source));
}

void WakeUps::startThread() {
    stop_ = makeEventDescriptor();
    hints_ = makeEventDescriptor();
    relief_ = FileDescriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    std::string failure;
    if (stop_.isOpen() && hints_.isOpen() && relief_.isOpen()) {
        waited_.resize(firstSource + sources_.size());
        waited_[hintsAt].fd = hints_.get();
        polled_.resize(sources_.size());
        polled_.push_back({stop_.get(), POLLIN, 0});
        try {
            thread_ = std::thread(&WakeUps::run, this);
        } catch (const std::exception& error) {
            failure = error.what();
        }
    } else {
        failure = errorText(errno);
    }
    if (thread_.joinable())
        return;
    report(LOG_WARNING, "Failed to watch wake-up descriptors: %s", failure.c_str());
    for (Source& source : sources_)
        abandon(source);
    sources_.clear();
}

void WakeUps::abandon(Source& source) {
    // The service manager keeps the socket open, and its queue must not fill up.
    if (source.isDatagramSocket)
        closeGate(source.descriptor);
    source.descriptor.reset();
}

bool WakeUps::wait(int journal, int stop) {
    waited_[journalAt].fd = journal;
    waited_[stopAt].fd = stop;
    const bool hasChanges =
        thread_.joinable() ? waitForHints() : poll(waited_.data(), hintsAt, -1) != 0;
    // libsystemd may have many files to look through now. Without traffic the queue has time.
    if (hasChanges && awaited_ > 0)
        beginWork();
    return hasChanges;
}

bool WakeUps::waitForHints() {
    // Most entries that were read before the first wait are older than all hints.
    if (!std::exchange(hasWaited_, true))
        early_ = 0;
    // No hints are read in the shortest pause, so a sender that never stops causes at most two
    // looks in a millisecond. If such looks go on and on, beginWork() reads, or the thread takes
    // over.
    if (awaited_ > 0 && pause_ == firstPause) {
        const int ready = poll(waited_.data(), hintsAt, timeout());
        if (ready == 0)
            lookedInVain();
        return ready != 0;
    }
    std::size_t count = firstSource;
    if (beginWait()) {
        prepareToPoll(&waited_[firstSource]);
        count = waited_.size();
    }
    const int ready = poll(waited_.data(), count, timeout());
    bool isFlood = false;
    const std::uint64_t hints = ready > 0 ? takeHints(count, isFlood) : 0;
    if (hints > 0)
        expect(hints);
    else if (ready == 0 && awaited_ > 0)
        lookedInVain();
    early_ = 0;
    endWait(isFlood);
    return ready < 0 || waited_[journalAt].revents != 0 || waited_[stopAt].revents != 0;
}

int WakeUps::timeout() const {
    // Some entries came before their hints were read. Those hints are in the queue: read them
    // first, for they announce nothing more.
    if (early_ > 0)
        return 0;
    return awaited_ > 0 ? static_cast<int>(pause_.count()) : -1;
}

bool WakeUps::beginWait() {
    {
        const Held<Mutex> held(mutex_);
        mainWaits_ = true;
        reads_ = !threadReads_;
    }
    if (reads_ && isReliefComing_)
        setRelief(never);
    isReliefComing_ = false;
    return reads_;
}

void WakeUps::endWait(bool isFlood) {
    {
        const Held<Mutex> held(mutex_);
        mainWaits_ = false;
        threadReads_ = threadReads_ || isFlood;
        reads_ = !threadReads_;
    }
    if (isFlood)
        setRelief(atOnce);
}

void WakeUps::beginWork() {
    if (!reads_)
        return;
    // A burst keeps the main thread from waiting. It costs less to read the hints in between than
    // to let the thread wake up for each of them.
    if (isReliefComing_ && Clock::now() - workBegan_ >= readInterval)
        readBetweenEntries();
    // Setting the timer for every entry of a burst, or in every wait, would cost much of their
    // time.
    if (reads_ && !isReliefComing_) {
        setRelief(longBusy);
        workBegan_ = Clock::now();
    }
}

void WakeUps::readBetweenEntries() {
    bool isFlood = false;
    if (beginWait()) {
        prepareToPoll(&waited_[firstSource]);
        waited_[hintsAt].revents = 0;
        if (poll(&waited_[firstSource], sources_.size(), 0) > 0)
            expect(takeHints(waited_.size(), isFlood));
        early_ = 0;
    }
    endWait(isFlood);
}

void WakeUps::setRelief(std::chrono::nanoseconds time) {
    itimerspec once{};
    once.it_value.tv_nsec = static_cast<decltype(once.it_value.tv_nsec)>(time.count());
    static_cast<void>(timerfd_settime(relief_.get(), 0, &once, nullptr)); // cannot fail
    isReliefComing_ = true;
}

std::uint64_t WakeUps::takeHints(std::size_t count, bool& isFlood) {
    std::uint64_t hints = 0;
    if (count > hintsAt && waited_[hintsAt].revents != 0)
        static_cast<void>(readSome(hints_.get(), &hints, sizeof hints));
    if (count > firstSource) {
        const int read = drainReadable(&waited_[firstSource]);
        isFlood = meter_.isFlood(read);
        hints += static_cast<std::uint64_t>(read);
    }
    return hints;
}

void WakeUps::expect(std::uint64_t hints) {
    awaited_ += hints - std::min(hints, early_);
    pause_ = firstPause;
    lookedFor_ = 0ms;
}

void WakeUps::lookedInVain() {
    lookedFor_ += pause_;
    pause_ = std::min(2 * pause_, longestWait - lookedFor_);
    // Some hints announce nothing, for example a forged one.
    if (lookedFor_ == longestWait || (awaited_ > untilQuiet / 2 && lookedFor_ >= quietTime))
        awaited_ = 0;
}

void WakeUps::entryCame() {
    if (!thread_.joinable())
        return;
    if (awaited_ == 0) {
        ++early_;
        return;
    }
    --awaited_;
    pause_ = firstPause;
    lookedFor_ = 0ms;
}

void WakeUps::run() {
    while (readUntilMainWaits() && awaitTurn())
        ;
}

bool WakeUps::readUntilMainWaits() {
    for (;;) {
        prepareToPoll(polled_.data());
        poll(polled_.data(), polled_.size(), -1);
        if (polled_.back().revents != 0)
            return false;
        const int hints = drainReadable(polled_.data());
        const bool isFlood = meter_.isFlood(hints);
        const bool isOver = hints > 0 && !isFlood && giveBack();
        if (hints > 0)
            addTo(hints_, static_cast<std::uint64_t>(hints));
        if (isOver)
            return true;
        if (isFlood)
            sitOutFlood();
    }
}

bool WakeUps::giveBack() {
    const Held<Mutex> held(mutex_);
    threadReads_ = !mainWaits_;
    return mainWaits_;
}

bool WakeUps::awaitTurn() {
    for (;;) {
        pollfd watched[] = {{relief_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
        poll(watched, 2, -1);
        if (watched[1].revents != 0)
            return false;
        std::uint64_t expirations = 0;
        if (readSome(relief_.get(), &expirations, sizeof expirations) < 0)
            continue; // stopped just now
        const Held<Mutex> held(mutex_);
        if (!mainWaits_)
            threadReads_ = true;
        if (threadReads_)
            return true;
    }
}

void WakeUps::sitOutFlood() {
    for (Source& source : sources_)
        if (source.isDatagramSocket && source.descriptor.isOpen() && closeGate(source.descriptor))
            while (drain(source, 0) == floodSize)
                ; // datagrams that came before the gate was closed
    poll(&polled_.back(), 1, static_cast<int>(meter_.rest().count()));
    for (const Source& source : sources_)
        if (source.isDatagramSocket && source.descriptor.isOpen())
            openGate(source.descriptor);
    meter_.rested();
    addTo(hints_, untilQuiet);
}

void WakeUps::prepareToPoll(pollfd* polled) const {
    for (const Source& source : sources_)
        *polled++ = {source.descriptor.get(), POLLIN | POLLRDHUP, 0};
}

int WakeUps::drainReadable(const pollfd* polled) {
    int hints = 0;
    for (std::size_t i = 0; i < sources_.size(); ++i)
        hints += polled[i].revents != 0 ? drain(sources_[i], polled[i].revents) : 0;
    return hints;
}

int WakeUps::drain(Source& source, short events) {
    const bool isEnding = (events & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
    for (int hints = 0; hints < floodSize;) {
        char thrownAway[bufferSize];
        const ssize_t length = readSome(source.descriptor.get(), thrownAway, sizeof thrownAway);
        // EPIPE: the kernel's log has overwritten records before they were read.
        if (length > 0 || (length == 0 && source.isDatagramSocket && !isEnding) ||
            (length < 0 && errno == EPIPE)) {
            ++hints;
        } else if (length < 0 && errno == EAGAIN && (hints > 0 || !isEnding)) {
            return hints;
        } else {
            // Polling it again would return at once, and for ever.
            reportDropped(source.descriptor,
                          length < 0 && errno != EAGAIN ? errorText(errno) : "End of input");
            abandon(source);
            return hints;
        }
    }
    return floodSize;
}

bool WakeUps::FloodMeter::isFlood(int hints) {
    const Clock::time_point now = Clock::now();
    if (now - start_ > floodPeriod) {
        begin(now);
        rest_ = firstRest;
    }
    hints_ += hints;
    return hints_ >= floodSize;
}

void WakeUps::FloodMeter::rested() {
    begin(Clock::now());
    rest_ = std::min(2 * rest_, longestRest);
}

void WakeUps::FloodMeter::begin(Clock::time_point now) {
    start_ = now;
    hints_ = 0;
}

} // namespace qwk
