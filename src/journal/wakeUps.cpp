#include "journal/wakeUps.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <linux/filter.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
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

// So many hints in so short a time are a flood. The thread then rests, for longer and longer while
// it lasts: the sender would fill the queue as soon as the thread does not get the processor for a
// few milliseconds, and reading all of it would take the processor from others.
constexpr int floodSize = 32;
constexpr std::chrono::milliseconds floodPeriod = 10ms;
constexpr std::chrono::milliseconds firstRest = 10ms;
constexpr std::chrono::milliseconds longestRest = 80ms;

// For an unknown number of entries: more than come before the journal is quiet again.
constexpr std::uint64_t untilQuiet = 1U << 20U;

bool makeNonBlocking(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

FileDescriptor makeEventDescriptor() {
    return FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

// While the gate is closed the kernel throws every datagram away, and the sender does not notice:
// the queue cannot fill up, and nobody has to read it.
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

// Tells whether there is a flood, and how long to rest.
class FloodMeter {
public:
    bool isFlood(int hints) {
        const Clock::time_point now = Clock::now();
        if (now - start_ > floodPeriod) {
            begin(now);
            rest_ = firstRest;
        }
        hints_ += hints;
        return hints_ >= floodSize;
    }
    std::chrono::milliseconds rest() const { return rest_; }
    void rested() {
        begin(Clock::now());
        rest_ = std::min(2 * rest_, longestRest);
    }

private:
    using Clock = std::chrono::steady_clock;

    void begin(Clock::time_point now) {
        start_ = now;
        hints_ = 0;
    }

    Clock::time_point start_;
    int hints_ = 0;
    std::chrono::milliseconds rest_ = firstRest;
};

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

WakeUps::WakeUps(std::vector<FileDescriptor> descriptors) {
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
    if (!makeNonBlocking(source.descriptor.get()))
        reportDropped(source.descriptor, errorText(errno));
    // The first read finds out now what can never be read, such as a socket that listens.
    else if (drain(source, 0) >= 0)
        sources_.push_back(std::move(source));
}

void WakeUps::startThread() {
    stop_ = makeEventDescriptor();
    hints_ = makeEventDescriptor();
    std::string failure;
    if (stop_.isOpen() && hints_.isOpen()) {
        for (const Source& source : sources_)
            polled_.push_back({source.descriptor.get(), POLLIN | POLLRDHUP, 0});
        polled_.push_back({stop_.get(), POLLIN, 0});
        try {
            thread_ = std::thread(&WakeUps::drainAll, this);
        } catch (const std::exception& error) {
            failure = error.what();
        }
    } else {
        failure = errorText(errno);
    }
    if (thread_.joinable())
        return;
    report(LOG_WARNING, "Failed to watch wake-up descriptors: %s", failure.c_str());
    hints_.reset();
    sources_.clear();
}

void WakeUps::drainAll() {
    FloodMeter meter;
    for (;;) {
        poll(polled_.data(), polled_.size(), -1);
        if (polled_.back().revents != 0)
            return;
        int hints = 0;
        for (std::size_t i = 0; i < sources_.size(); ++i)
            hints += polled_[i].revents != 0 ? drainOrDrop(i) : 0;
        if (hints > 0)
            addTo(hints_, static_cast<std::uint64_t>(hints));
        if (meter.isFlood(hints)) {
            sitOutFlood(meter.rest());
            meter.rested();
        }
    }
}

int WakeUps::drainOrDrop(std::size_t index) {
    const int hints = drain(sources_[index], polled_[index].revents);
    if (hints >= 0)
        return hints;
    polled_[index].fd = -1;
    sources_[index].descriptor.reset();
    return 0;
}

void WakeUps::sitOutFlood(std::chrono::milliseconds rest) {
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        const Source& source = sources_[i];
        if (source.isDatagramSocket && closeGate(source.descriptor))
            while (drainOrDrop(i) == floodSize)
                ; // what came before the gate was closed
    }
    poll(&polled_.back(), 1, static_cast<int>(rest.count()));
    for (const Source& source : sources_)
        if (source.isDatagramSocket)
            openGate(source.descriptor);
    addTo(hints_, untilQuiet);
}

int WakeUps::drain(const Source& source, short events) {
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
            return -1;
        }
    }
    return floodSize;
}

int WakeUps::descriptor() const {
    // A sender that never stops causes two looks in a millisecond at most.
    return awaited_ > 0 && pause_ == firstPause ? -1 : hints_.get();
}

int WakeUps::timeout() const {
    return awaited_ > 0 ? static_cast<int>(pause_.count()) : -1;
}

void WakeUps::polled(int result, short events) {
    if (events != 0) {
        std::uint64_t hints = 0;
        static_cast<void>(readSome(hints_.get(), &hints, sizeof hints));
        awaited_ += hints;
        pause_ = firstPause;
        waited_ = 0ms;
    } else if (result == 0) {
        waited_ += pause_;
        pause_ = std::min(2 * pause_, longestWait - waited_);
        // Some hints announce nothing, for example a forged one.
        if (waited_ == longestWait)
            awaited_ = 0;
    }
}

void WakeUps::entryCame() {
    if (awaited_ == 0)
        return;
    --awaited_;
    pause_ = firstPause;
    waited_ = 0ms;
}

} // namespace qwk
