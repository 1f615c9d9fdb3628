#pragma once

#include <cstdint>
#include <string>

/// Finds lines by sequence number in log files and in text in memory. Every line that the logger
/// writes begins with "[%08x]" and the numbers grow by one, so a few small blocks of a file are
/// enough to find a line. Offsets are 32-bit; a place beyond them is not found.
///
/// All return 0, or -1 when nothing is found or a read fails, and set out-parameters only on
/// success. None takes a lock: the caller ensures that files and text do not change meanwhile.
namespace qwk::sequenceIndex {

/// Moves `offset` to the byte after the first newline at or after it.
int findNextLine(const std::string& path, std::uint32_t& offset);
int findNextLine(const char* data, int size, std::uint32_t& offset);

/// Finds the first numbered line that starts after a newline at or after `offset`, or at 0 if
/// `offset` is 0; sets its number and its start. Moves the position of `fd`.
int readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id);

/// Finds the last numbered line that follows a newline. Moves the position of `fd`.
int readLastId(int fd, std::uint32_t& offset, std::uint32_t& id);

/// Finds the line numbered `id`; -2 when the file cannot be opened.
int findId(const std::string& path, std::uint32_t id, std::uint32_t& offset);
/// Finds the first "[%08x]" of `id`, at a line start or within a line.
int findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset);

} // namespace qwk::sequenceIndex
