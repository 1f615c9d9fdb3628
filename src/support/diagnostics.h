#pragma once

#include <cstdint>
#include <string>
#include <syslog.h>

namespace qwk {

/// Severities up to this one are written: errors, warnings and informational messages.
inline constexpr std::uint8_t diagnosticLevel = LOG_INFO;

/// Writes one message to syslog with facility LOG_DAEMON when `severity` (LOG_EMERG to LOG_DEBUG)
/// is within the diagnostic level. `format` is printf's, and a literal: it identifies the kind of
/// message. Of each kind, 256 and then one in 10 s are written (see MessageLimiter); a line of its
/// own gives the number held back. Keeps errno. Any thread may call it.
[[gnu::format(printf, 2, 3)]] void report(int severity, const char* format, ...);

/// The system's text for an error number.
std::string errorText(int errorNumber);

} // namespace qwk
