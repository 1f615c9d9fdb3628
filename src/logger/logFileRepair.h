#pragma once

namespace qwk {

/// Appends a newline if a power cut or a full disk truncated the last line of the log file, so that
/// the next entry begins on a line of its own. Call it before the log file is opened for writing.
void endTornLine();

} // namespace qwk
