#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// The time zone of the time in a log line.
enum class TimeZone { local, utc };

/// The log line of an entry, without a newline: "[%08x] YYYY-MM-DD hh:mm:ss.mmm message". `time`
/// is in microseconds since 1970-01-01 00:00 UTC. Two threads must not call it at the same time,
/// because the C library's time conversion has only one result buffer.
std::string formatLogLine(std::uint32_t id, std::uint64_t time, const std::string& message,
                          TimeZone zone = TimeZone::local);

} // namespace qwk
