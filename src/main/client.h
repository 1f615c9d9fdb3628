#pragma once

#include <cstdio>
#include <string>

namespace qwk {

/// Sends `requestLine` to the daemon and copies its answer to `out` as it arrives, until the daemon
/// ends the connection or the reader of `out` leaves. Prints each piece of the answer up to its
/// first zero byte, and a newline after a piece that ends with one. Text that is still in the
/// buffer of `out` is printed before the answer; none of the answer stays there. `out` may be any
/// stream; waits while it would block. Returns 0, or -1 when the daemon cannot be reached, the
/// request cannot be sent or the wait for the answer fails.
int sendRequest(const std::string& requestLine, std::FILE* out);

/// The request line of a command line: its words joined with single blanks.
std::string requestLine(int argc, const char* const* argv);

/// Prints the usage text to standard output.
void printUsage();

} // namespace qwk
