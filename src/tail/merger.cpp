#include "tail/merger.h"

namespace qwk::tail {

bool Merger::take(Entry& entry, Source source, bool patient) {
    if (held_ && isTornPartOf(entry) && held_->text.size() < entry.text.size())
        held_.reset();
    if (has(entry)) {
        previous_ = markOf(entry);
        if (source == Source::files && printedInLook_)
            noteRepeated(entry.number);
        return true;
    }
    if (since_ && !hasPlace() && distance(entry.number, *since_) < 0)
        return true;
    if (patient && hasPlace() && distance(entry.number, nextNumber()) > 0)
        return false;
    settle();
    held_ = std::move(entry);
    printedInLook_ |= source == Source::files;
    return true;
}

bool Merger::has(const Entry& entry) const {
    return history_.knows(entry) || (held_ && markOf(*held_) == markOf(entry));
}

bool Merger::isNext(std::uint32_t number) const {
    return hasPlace() && number == nextNumber();
}

std::uint32_t Merger::nextNumber() const {
    return held_ ? held_->number + 1 : history_.nextNumber();
}

bool Merger::isTornPartOf(const Entry& entry) const {
    return held_->number == entry.number &&
           entry.text.compare(0, held_->text.size(), held_->text) == 0;
}

void Merger::settle() {
    if (held_)
        print(*held_);
    held_.reset();
    tellRepeated();
}

void Merger::print(const Entry& entry) {
    if (!history_.isEmpty()) {
        const std::uint32_t next = history_.nextNumber();
        const std::int32_t beyond = distance(entry.number, next);
        if (beyond > 0 && placeLost_)
            events_.cursorTooOld(next, entry.number - 1);
        else if (beyond > 0)
            events_.gap(next, entry.number - 1);
        else if (beyond < 0) {
            events_.wentBack(next - 1, entry.number);
            if (previous_)
                history_.setAnchor(*previous_);
        }
    }
    placeLost_ = false;
    output_.add(entry);
    previous_ = markOf(entry);
    history_.add(*previous_);
}

void Merger::noteRepeated(std::uint32_t number) {
    if (repeated_ && repeated_->second + 1 == number)
        repeated_->second = number;
    else {
        tellRepeated();
        repeated_ = {number, number};
    }
}

void Merger::tellRepeated() {
    if (repeated_)
        events_.repeated(repeated_->first, repeated_->second);
    repeated_.reset();
}

} // namespace qwk::tail
