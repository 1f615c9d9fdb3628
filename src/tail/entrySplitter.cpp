#include "tail/entrySplitter.h"

#include <algorithm>
#include <cstring>

#include "eeprom/framLayout.h"
#include "logger/sequenceNumber.h"

namespace qwk::tail {

namespace {

// Above the longest entry: a message has less than 64 KiB.
constexpr std::size_t longestText = 1U << 18U;
constexpr std::size_t timeAt = sequenceDigits + 3;
constexpr std::size_t timeLength = headLength - timeAt - 1;
constexpr std::uint32_t mostEntriesInChip =
    (framLayout::chipSize - framLayout::entryAreaStart) / framLayout::minEntrySize;

} // namespace

// A message is shortened in a file, and whole in the daemon's memory.
EntrySplitter::EntrySplitter(Source source)
    : furthestNext_(source == Source::file ? headLength + framLayout::maxMessage + 1
                                           : longestText) {}

void EntrySplitter::add(const char* text, std::size_t length) {
    if (begin_ > longestText / 4) {
        text_.erase(0, begin_);
        searchFrom_ -= std::min(searchFrom_, begin_);
        begin_ = 0;
    }
    if (text_.size() - begin_ > longestText) { // no entry is that long: the file is damaged
        text_.clear();
        begin_ = searchFrom_ = 0;
        begun_ = false;
    }
    text_.append(text, length);
}

bool EntrySplitter::next(Entry& entry, bool complete) {
    while (begun_ || findBeginning(complete)) {
        std::size_t end = 0;
        std::uint32_t nextNumber = 0;
        Answer found = findEnd(complete, end, nextNumber);
        if (found == Answer::needsText)
            return false;
        const bool another = found == Answer::yes;
        if (!another)
            found = findLastEnd(end);
        const bool whole = found == Answer::yes && cut(end, entry);
        begin_ = searchFrom_ = another ? end + 1 : text_.size();
        begun_ = another;
        number_ = nextNumber;
        if (whole)
            return true;
    }
    return false;
}

bool EntrySplitter::findBeginning(bool complete) {
    for (;;) {
        const std::size_t left = text_.size() - begin_;
        if (beginsEntry(text_.data() + begin_, left, number_)) {
            begun_ = true;
            searchFrom_ = begin_;
            return true;
        }
        const std::size_t newline = text_.find('\n', begin_);
        if (newline == std::string::npos || (left < headLength && !complete))
            return false;
        begin_ = newline + 1;
    }
}

EntrySplitter::Answer EntrySplitter::findEnd(bool complete, std::size_t& end,
                                             std::uint32_t& number) {
    for (;;) {
        const std::size_t newline = text_.find('\n', searchFrom_);
        if (newline == std::string::npos) {
            searchFrom_ = text_.size();
            return complete ? Answer::no : Answer::needsText;
        }
        const std::size_t line = newline + 1;
        if (text_.size() - line < headLength && !complete) {
            searchFrom_ = newline;
            return Answer::needsText;
        }
        if (beginsEntry(text_.data() + line, text_.size() - line, number)) {
            const Answer part = belongsToMessage(line, number, complete);
            if (part == Answer::needsText) {
                searchFrom_ = newline;
                return part;
            }
            end = newline;
            if (part == Answer::no)
                return Answer::yes;
        }
        searchFrom_ = line;
    }
}

EntrySplitter::Answer EntrySplitter::findLastEnd(std::size_t& end) const {
    end = text_.rfind('\n');
    if (end == std::string::npos || end < begin_)
        return Answer::no;
    const std::size_t rest = text_.size() - (end + 1);
    return rest == 0 || isTornHead(text_.data() + end + 1, rest, number_) ? Answer::yes
                                                                          : Answer::no;
}

// A message may quote lines of the log. The numbers decide: the next entry has the next number.
// After a power cut the log may repeat entries up to the current number, and a message cannot quote
// its own number. At the end of the text the time decides: a message quotes the past.
EntrySplitter::Answer EntrySplitter::belongsToMessage(std::size_t line, std::uint32_t number,
                                                      bool complete) const {
    if (number == number_ || number == number_ + 1)
        return Answer::no;
    const std::size_t furthest = begin_ + furthestNext_;
    for (std::size_t at = line; at <= furthest; ++at) {
        std::uint32_t other = 0;
        if (text_.size() - at < headLength && !complete)
            return Answer::needsText;
        if (beginsEntry(text_.data() + at, text_.size() - at, other)) {
            if (other == number_)
                return Answer::no;
            if (other == number_ + 1)
                return Answer::yes;
        }
        at = text_.find('\n', at);
        if (at == std::string::npos && !complete && text_.size() <= furthest)
            return Answer::needsText;
        if (at == std::string::npos && complete)
            return number_ - number - 1 < mostEntriesInChip && !isLater(line) ? Answer::yes
                                                                              : Answer::no;
        if (at == std::string::npos)
            return Answer::no;
    }
    return Answer::no;
}

bool EntrySplitter::isLater(std::size_t line) const {
    return text_.compare(line + timeAt, timeLength, text_, begin_ + timeAt, timeLength) > 0;
}

bool EntrySplitter::cut(std::size_t end, Entry& entry) const {
    // After a power cut, blocks that the file system never wrote read as zero bytes.
    const void* zero = std::memchr(text_.data() + begin_, '\0', end - begin_);
    if (zero != nullptr) {
        end = text_.rfind('\n',
                          static_cast<std::size_t>(static_cast<const char*>(zero) - text_.data()));
        if (end == std::string::npos || end < begin_)
            return false;
    }
    const std::size_t lastLine = text_.rfind('\n', end - 1) + 1;
    if (lastLine > begin_ && isTornHead(text_.data() + lastLine, end - lastLine, number_))
        end = lastLine - 1;
    while (end > begin_ && text_[end - 1] == '\n')
        --end;
    entry.number = number_;
    entry.text.assign(text_, begin_, end - begin_);
    return true;
}

std::vector<Entry> splitEntries(EntrySplitter::Source source, const char* text,
                                std::size_t length) {
    std::vector<Entry> entries;
    EntrySplitter splitter(source);
    splitter.add(text, length);
    for (Entry entry; splitter.next(entry, true);)
        entries.push_back(std::move(entry));
    return entries;
}

} // namespace qwk::tail
