#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tail/entry.h"

namespace qwk::tail {

/// Cuts log text into whole entries. It skips text before the first entry, and entries whose text
/// shows that a power cut left only a part of them.
class EntrySplitter {
public:
    enum class Source { file, daemon };

    explicit EntrySplitter(Source source);

    void add(const char* text, std::size_t length);

    /// Takes out the next entry; false when it needs more text. With `complete` no more will come:
    /// the last entry is whole when a newline ends it.
    bool next(Entry& entry, bool complete);

private:
    enum class Answer { no, yes, needsText };

    bool findBeginning(bool complete);
    /// Sets `end` to the newline after the current entry, and `number` to that of the next one.
    Answer findEnd(bool complete, std::size_t& end, std::uint32_t& number);
    /// The same for an entry that no other follows.
    Answer findLastEnd(std::size_t& end) const;
    /// Whether the line that begins as an entry of another number than the next is a part of the
    /// current entry's message.
    Answer belongsToMessage(std::size_t line, std::uint32_t number, bool complete) const;
    /// Whether the entry that begins at `line` has a later time than the current one.
    bool isLater(std::size_t line) const;
    /// Sets the text of the current entry; false when a power cut left too little of it.
    bool cut(std::size_t end, Entry& entry) const;

    /// The next entry begins at most so far from the beginning of an entry.
    const std::size_t furthestNext_;
    std::string text_;
    /// The current entry begins here once `begun_`; text before it is used up.
    std::size_t begin_ = 0;
    bool begun_ = false;
    std::uint32_t number_ = 0;
    /// Where the search for its end goes on.
    std::size_t searchFrom_ = 0;
};

/// The whole entries in text after which no more will come.
std::vector<Entry> splitEntries(EntrySplitter::Source source, const char* text, std::size_t length);

} // namespace qwk::tail
