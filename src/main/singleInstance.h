#pragma once

namespace qwk {

/// Whether a second process runs as daemon; the calling one counts as the first. Looks at the
/// command lines of all processes, so there is no file that a killed daemon could leave.
bool isDaemonRunning();

} // namespace qwk
