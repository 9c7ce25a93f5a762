#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mom/mom.h"

namespace kvx::tool {

/// How the rows of a notice are shown, and which.
struct ChangeFormat {
    std::string table;  ///< rows of this table only; empty for all
    bool json = false;
};

/// One line for every row that `datum`, a packet of a notify subject, tells of.
///
/// A packet is read by itself: no record goes beyond its packet, so it does not matter to which
/// batch it belongs or what else its sender sent. Any thread.
std::vector<std::string> changesIn(const RvDatum& datum, std::int64_t cameAtMs,
                                   const ChangeFormat& format);

}  // namespace kvx::tool
