#pragma once

#include <cstdint>
#include <string>

/// Finds lines by sequence number in log files and in text held in memory. Every line that the
/// logger writes begins with "[%08x]" and the numbers grow by one, so a line is found from a few
/// small blocks of the file. Offsets are 32-bit; a place beyond them is not found.
///
/// All return 0, or -1 when nothing is found or a read fails; out-parameters are written only on
/// success. None takes a lock: the caller keeps the files and the text as they are meanwhile.
namespace qwk::sequenceIndex {

/// Moves `offset` to the byte after the first newline at or after it.
int findNextLine(const std::string& path, std::uint32_t& offset);
int findNextLine(const char* data, int size, std::uint32_t& offset);

/// Finds the first numbered line that starts at `offset` (only when that is 0) or after a newline
/// at or after it; sets its number and its start. Moves the position of `fd`.
int readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id);

/// Finds the last numbered line that has a newline in front of it. Moves the position of `fd`.
int readLastId(int fd, std::uint32_t& offset, std::uint32_t& id);

/// Finds the line numbered `id`; -2 when the file cannot be opened.
int findId(const std::string& path, std::uint32_t id, std::uint32_t& offset);
/// Finds the first "[%08x]" of `id`, at a line start or within a line.
int findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset);

} // namespace qwk::sequenceIndex
