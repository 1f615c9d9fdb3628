#include "support/diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <system_error>
#include <type_traits>

#include "support/messageLimiter.h"

namespace qwk {

namespace {

// Initialised before the start and without a destructor: threads report until the process ends.
MessageLimiter limiter;
static_assert(std::is_trivially_destructible_v<MessageLimiter>);

} // namespace

void report(int severity, const char* format, ...) {
    if (severity > diagnosticLevel)
        return;
    const int keptErrno = errno;
    const auto verdict = limiter.admit(format, MessageLimiter::Clock::now());
    if (verdict.heldBack > 0)
        syslog(LOG_DAEMON | severity, "%u messages like the next one were suppressed.",
               verdict.heldBack);
    if (verdict.isLetThrough) {
        va_list arguments;
        va_start(arguments, format);
        vsyslog(LOG_DAEMON | severity, format, arguments);
        va_end(arguments);
    }
    errno = keptErrno;
}

std::string errorText(int errorNumber) {
    return std::generic_category().message(errorNumber);
}

} // namespace qwk
