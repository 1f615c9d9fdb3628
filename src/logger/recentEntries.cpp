#include "logger/recentEntries.h"

namespace qwk {

namespace {

constexpr std::size_t droppedAtOnce = std::size_t{64} << 10;

} // namespace

bool dropOldestLines(std::string& lines) {
    if (lines.size() <= maxRecentEntries)
        return false;
    lines.erase(0, lines.find('\n', lines.size() - maxRecentEntries + droppedAtOnce) + 1);
    return true;
}

} // namespace qwk
