#pragma once

#include "logger/delivery.h"

/// Keeps a stream's resume point: the last line start that was sent, and its stream offset.
namespace qwk::lineTracker {

/// Records that `done` of the `length` bytes at `data` were sent: finds the last line start among
/// them, completes one that an earlier call left open, and advances `count_total`.
void recordSent(SendState& state, const char* data, int length, int done);

} // namespace qwk::lineTracker
