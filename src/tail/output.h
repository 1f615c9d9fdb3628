#pragma once

#include <cerrno>
#include <cstddef>
#include <deque>
#include <string>

#include "tail/entry.h"

namespace qwk::tail {

/// Standard output. Each write holds whole entries, and a pipe takes all of it or nothing. Only an
/// entry above PIPE_BUF bytes goes out alone, and a kill may cut it.
class Output {
public:
    Output();

    /// Adds an entry; writes those before it when they fill a piece.
    void add(const Entry& entry);
    /// Writes the added entries. Waits for the reader unless the program is to stop.
    void flush();
    /// Waits until a pipe's reader has read everything; not for long when the program is to stop.
    void drain();
    /// Puts the written entries on stable storage when the output is a file.
    void sync() const;

    /// How many of the newest entries the reader does not have: not written, or unread in a pipe.
    std::size_t untaken();

    /// Nothing more will be written: the reader has left or a stop is requested.
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
