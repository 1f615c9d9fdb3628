#pragma once

#include <cerrno>
#include <cstddef>
#include <string>

#include "tail/entry.h"

namespace qwk::tail {

/// Standard output. Entries go out in writes of whole entries that a pipe takes whole or not at
/// all; one above PIPE_BUF bytes goes out alone and may be cut by a kill.
class Output {
public:
    /// Adds an entry; writes those before it when they fill a piece.
    void add(const Entry& entry);
    /// Writes what was added. It waits for a reader, but not when the program is to stop.
    void flush();

    /// Entries that were added and are not written: the newest ones.
    std::size_t unwritten() const { return unwritten_; }
    /// Makes what was written last a power cut, where the output is a file.
    void sync() const;

    /// Nothing more will be written: the reader has gone or a stop is requested.
    bool isOver() const;
    void readerHasGone() { error_ = EPIPE; }
    /// The error number of a failed write, or 0.
    int error() const { return error_; }

private:
    std::string piece_;
    std::size_t unwritten_ = 0;
    int error_ = 0;
};

} // namespace qwk::tail
