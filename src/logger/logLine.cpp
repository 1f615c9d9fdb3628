#include "logger/logLine.h"

#include <cstdio>
#include <ctime>

namespace qwk {

namespace {

// All zeros for a time that the C library cannot convert (beyond its largest year).
std::tm calendarTime(std::time_t seconds, TimeZone zone) {
    // localtime() follows a change of the board's time zone while the daemon runs; localtime_r()
    // may not.
    const std::tm* converted =
        zone == TimeZone::local ? std::localtime(&seconds) : std::gmtime(&seconds);
    return converted != nullptr ? *converted : std::tm{};
}

} // namespace

std::string formatLogLine(std::uint32_t id, std::uint64_t time, const std::string& message,
                          TimeZone zone) {
    const std::uint64_t rounded = time + 500; // to the nearest millisecond, with carry
    const std::tm when = calendarTime(static_cast<std::time_t>(rounded / 1000000), zone);
    const auto milliseconds = static_cast<unsigned>(rounded % 1000000 / 1000);

    char head[128];
    const int length = std::snprintf(
        head, sizeof head, "[%08x] %04d-%02d-%02d %02d:%02d:%02d.%03u ", id, when.tm_year + 1900,
        when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec, milliseconds);
    std::string line;
    line.reserve(static_cast<std::size_t>(length) + message.size());
    line.append(head, static_cast<std::size_t>(length));
    line += message;
    return line;
}

} // namespace qwk
