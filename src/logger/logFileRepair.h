#pragma once

namespace qwk {

/// Appends a newline to a log file whose last line lost its end to a power cut or a full disk, so
/// that the next line begins at a line start. Call it before the log file is opened for writing.
void endTornLine();

} // namespace qwk
