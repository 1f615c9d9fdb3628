#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "tail/entry.h"

namespace qwk::tail {

/// A printed entry, as the history remembers it.
struct Mark {
    std::uint32_t number = 0;
    std::uint64_t fingerprint = 0;
    /// Bytes that it takes in the chip.
    std::uint32_t size = 0;

    bool operator==(const Mark& other) const {
        return number == other.number && fingerprint == other.fingerprint;
    }
};

Mark markOf(const Entry& entry);

/// The newest printed entries, more than the chip can hold. Entries before them have left the chip,
/// so a search of the log can begin at the newest one that is still in its files.
class History {
public:
    void add(const Mark& mark);
    bool knows(const Entry& entry) const;
    bool isEmpty() const { return marks_.empty(); }
    /// How many were ever added.
    std::uint64_t added() const { return added_; }
    /// The number after that of the last printed entry; only when there is one.
    std::uint32_t nextNumber() const { return marks_.back().number + 1; }

    /// An entry that certainly reached a log file, even if `--clear` has dropped later ones.
    const std::optional<Mark>& anchor() const { return anchor_; }
    void setAnchor(const Mark& mark) { anchor_ = mark; }

    /// Oldest first.
    const std::deque<Mark>& marks() const { return marks_; }
    /// The index of the first entry that the cursor file needs: without the newest `untaken`, one
    /// more than the chip can hold.
    std::size_t firstNeeded(std::size_t untaken) const;

private:
    std::deque<Mark> marks_;
    std::uint32_t size_ = 0;
    std::uint64_t added_ = 0;
    std::optional<Mark> anchor_;
};

} // namespace qwk::tail
