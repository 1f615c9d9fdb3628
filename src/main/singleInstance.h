#pragma once

namespace qwk {

/// Whether a second process runs as daemon beside the calling one, which counts as the first. The
/// command lines of all processes tell: there is no file that a killed daemon could leave.
bool isDaemonRunning();

} // namespace qwk
