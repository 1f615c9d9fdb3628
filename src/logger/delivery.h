#pragma once

#include <cstdint>
#include <string>

namespace qwk {

/// One source of log bytes. Lists of sources are in order, newest first, and are sent from their
/// last element to their first. Offsets and sizes are read as unsigned: the largest log file has
/// 2^31 bytes and one line.
struct LogFile {
    /// Where sending starts, in bytes.
    std::int32_t off;
    /// The source's length in bytes; 0 if not known.
    std::int32_t size;
    /// Path of the log file; empty for the recent-entry buffer.
    std::string name;
};

/// The position of one client's stream. The stream is every byte sent to the client: log files and
/// buffer text as they are, and a NUL after each send of the buffer, where the log file will have a
/// newline. Offsets in the stream wrap, so that only their differences have a meaning;
/// `count_total` is 0 only before the first byte.
///
/// The pair (id, count_total - count_id) is the resume point: a line, and the number of bytes that
/// the client has from that line's opening bracket on.
struct SendState {
    /// Files are read through this buffer of `bufferSize` bytes, which the stream owns.
    char* buffer;
    std::int32_t bufferSize;
    /// The client's non-blocking socket; not owned.
    int socket;
    /// Bytes sent so far.
    std::int32_t count_total;
    /// Stream offset of the last recognised line, and that line's sequence number.
    std::int32_t count_id;
    std::uint32_t id;
    /// A line start whose number was not complete when a call ended: its stream offset, and the
    /// line terminator with up to 9 known bytes after it; empty when none is pending.
    std::int32_t lineStart;
    char lineHead[11];
};

} // namespace qwk
