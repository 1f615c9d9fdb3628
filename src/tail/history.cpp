#include "tail/history.h"

#include <algorithm>

#include "eeprom/framLayout.h"

namespace qwk::tail {

namespace {

// Enough for the entries of a full chip and those that the output's reader has not read: 16 KiB in
// a pipe and a piece of 4 KiB.
constexpr std::uint32_t rememberedSize = 4 * framLayout::chipSize;

} // namespace

Mark markOf(const Entry& entry) {
    const std::size_t message =
        std::min<std::size_t>(entry.text.size() > headLength ? entry.text.size() - headLength : 0,
                              framLayout::maxMessage);
    return {entry.number, fingerprint(entry),
            framLayout::messageAt + static_cast<std::uint32_t>(message)};
}

void History::add(const Mark& mark) {
    marks_.push_back(mark);
    size_ += mark.size;
    ++added_;
    while (size_ - marks_.front().size > rememberedSize) {
        size_ -= marks_.front().size;
        marks_.pop_front();
    }
}

std::size_t History::firstNeeded(std::size_t untaken) const {
    std::size_t index = marks_.size() - std::min(untaken, marks_.size());
    for (std::uint32_t size = 0; index > 0 && size <= framLayout::chipSize;)
        size += marks_[--index].size;
    return index;
}

bool History::knows(const Entry& entry) const {
    const auto same = [&](const Mark& mark) { return mark.number == entry.number; };
    if (std::none_of(marks_.begin(), marks_.end(), same) && !(anchor_ && same(*anchor_)))
        return false;
    const Mark mark = markOf(entry);
    return std::find(marks_.rbegin(), marks_.rend(), mark) != marks_.rend() ||
           (anchor_ && *anchor_ == mark);
}

} // namespace qwk::tail
