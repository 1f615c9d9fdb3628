#pragma once

#include <cstddef>
#include <string>

#include "tail/history.h"

namespace qwk::tail {

/// The file that tells the next start which entries were printed. It is replaced as a whole, so
/// that it is the old or the new one after a kill or a power cut.
class CursorFile {
public:
    explicit CursorFile(std::string path) : path_(std::move(path)) {}

    /// Reads it; a missing or empty file leaves `history` empty. Throws std::runtime_error when it
    /// cannot be read or is no cursor file.
    void load(History& history) const;

    /// Writes it without the newest `untaken` entries. False on failure; errno tells why.
    bool save(const History& history, std::size_t untaken) const;

private:
    const std::string path_;
};

} // namespace qwk::tail
