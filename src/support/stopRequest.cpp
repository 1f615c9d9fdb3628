#include "support/stopRequest.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "support/diagnostics.h"

namespace qwk {

StopRequest::StopRequest() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    // Without it a signal still interrupts a wait, but one that arrives just before a wait is
    // noticed only after it.
    if (!descriptor_.isOpen())
        report(LOG_ERR, "Cannot create event descriptor (%s).", errorText(errno).c_str());
}

void StopRequest::request(int signal) noexcept {
    const int keptErrno = errno;
    int none = 0;
    signal_.compare_exchange_strong(none, signal);
    const std::uint64_t one = 1;
    // A write to a full counter fails, but then the descriptor is readable already.
    static_cast<void>(!write(descriptor_.get(), &one, sizeof one));
    errno = keptErrno;
}

void StopRequest::sleepFor(std::chrono::milliseconds duration) const {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + duration;
    auto left = duration;
    while (!isRequested() && left.count() > 0) {
        pollfd watched{descriptor(), POLLIN, 0};
        poll(&watched, 1, static_cast<int>(left.count()));
        left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    }
}

StopRequest& stopRequest() {
    static StopRequest request;
    return request;
}

} // namespace qwk
