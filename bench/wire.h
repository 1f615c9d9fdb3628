#pragma once

#include <cstddef>
#include <vector>

#include "framEmulator/framChip.h"

namespace bench {

/// The time of a set of transfers on the bus: start, address byte, data and stop, nine clocks a
/// byte.
struct Wire {
    explicit Wire(const std::vector<framEmulator::Transfer>& transfers) : count(transfers.size()) {
        for (const framEmulator::Transfer& transfer : transfers) {
            bytes += 1 + transfer.transferred;
            clocks += 2 + 9 * (1 + transfer.transferred);
        }
    }
    double microseconds(double hertz) const { return static_cast<double>(clocks) * 1e6 / hertz; }
    std::size_t count;
    std::size_t bytes = 0;
    std::size_t clocks = 0;
};

} // namespace bench
