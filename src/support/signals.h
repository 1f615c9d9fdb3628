#pragma once

namespace qwk {

/// Makes writing to a peer or a reader that has left an error of the call, and not the end of the
/// process: blocks SIGPIPE in the calling thread and in the threads that it starts later.
void blockBrokenPipe();

} // namespace qwk
