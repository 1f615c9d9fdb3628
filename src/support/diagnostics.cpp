#include "support/diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <system_error>

namespace qwk {

void report(int severity, const char* format, ...) {
    if (severity > diagnosticLevel)
        return;
    const int keptErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_DAEMON | severity, format, arguments);
    va_end(arguments);
    errno = keptErrno;
}

std::string errorText(int errorNumber) {
    return std::generic_category().message(errorNumber);
}

} // namespace qwk
