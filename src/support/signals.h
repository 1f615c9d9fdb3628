#pragma once

namespace qwk {

/// Blocks SIGPIPE in the calling thread and in the threads that it starts later: writing to a peer
/// that has left then fails with an error and does not end the process.
void blockBrokenPipe();

} // namespace qwk
