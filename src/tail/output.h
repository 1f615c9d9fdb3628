#pragma once

#include <cerrno>
#include <cstddef>
#include <deque>
#include <string>

#include "tail/entry.h"

namespace qwk::tail {

/// Standard output. Entries go out in writes of whole entries that a pipe takes whole or not at
/// all; one above PIPE_BUF bytes goes out alone and may be cut by a kill.
class Output {
public:
    Output();

    /// Adds an entry; writes those before it when they fill a piece.
    void add(const Entry& entry);
    /// Writes what was added. It waits for a reader, but not when the program is to stop.
    void flush();
    /// Waits until a pipe's reader has read all, but not long when the program is to stop.
    void drain();
    /// Lets what was written last a power cut, where the output is a file.
    void sync() const;

    /// The newest entries that nobody has: not written, or unread in a pipe.
    std::size_t untaken();

    /// Nothing more will be written: the reader has gone or a stop is requested.
    bool isOver() const;
    void readerHasGone() { error_ = EPIPE; }
    /// The error number of a failed write, or 0.
    int error() const { return error_; }

private:
    std::size_t unreadBytes() const;

    const bool isPipe_;
    std::string piece_;
    std::size_t unwritten_ = 0;
    /// Bytes of each of the newest entries, oldest first: of those in piece_ and in the pipe.
    std::deque<std::size_t> sizes_;
    int error_ = 0;
};

} // namespace qwk::tail
