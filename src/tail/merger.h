#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "tail/entry.h"
#include "tail/events.h"
#include "tail/history.h"
#include "tail/output.h"

namespace qwk::tail {

/// Puts the entries of files and daemon into one sequence, prints each once and reports gaps in the
/// numbers. It holds the newest entry until the next one or settle() confirms it: after a power
/// cut, a torn line in the file is followed by the same line, whole.
class Merger {
public:
    enum class Source { files, daemon };

    Merger(History& history, Output& output, const Events& events,
           std::optional<std::uint32_t> since)
        : history_(history), output_(output), events_(events), since_(since) {}

    /// Takes the next entry of a source. With `patient` it takes none that leaves a gap, and
    /// returns false: a second look may find the missing ones.
    bool take(Entry& entry, Source source, bool patient);
    /// Whether the entry was taken already, printed or held.
    bool has(const Entry& entry) const;
    /// Whether an entry of this number is the one to come next.
    bool isNext(std::uint32_t number) const;
    /// Whether there is an entry that others can follow.
    bool hasPlace() const { return held_ || !history_.isEmpty(); }

    /// Prints the held entry: its source shows that it is whole.
    void settle();
    /// Forgets the held entry: it will be read again.
    void drop() { held_.reset(); }

    /// No file holds an entry that the history knows: the cursor's age explains the next gap.
    void placeIsLost() { placeLost_ = true; }
    /// A new look begins: entries of the files that were printed before it are no repetition.
    void beginLook() { printedInLook_ = false; }

private:
    std::uint32_t nextNumber() const;
    bool isTornPartOf(const Entry& entry) const;
    void print(const Entry& entry);
    void noteRepeated(std::uint32_t number);
    void tellRepeated();

    History& history_;
    Output& output_;
    const Events& events_;
    const std::optional<std::uint32_t> since_;
    std::optional<Entry> held_;
    /// The entry before the next one in the log, printed now or before.
    std::optional<Mark> previous_;
    std::optional<std::pair<std::uint32_t, std::uint32_t>> repeated_;
    bool placeLost_ = false;
    bool printedInLook_ = false;
};

} // namespace qwk::tail
