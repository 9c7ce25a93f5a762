#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mom/mom.h"

namespace kvx::tool {

/// Selection and format of the rows of a notice.
struct ChangeFormat {
    std::string table;  ///< rows of this table only; empty for all
    bool json = false;
};

/// One line for a row: its change and its table, a hyphen or null for one that it does not name,
/// and its columns.
std::string changeLine(const CVekBaseRecord& row, std::int64_t cameAtMs, bool json);

/// One line for every row in `datum`, a packet of a notify subject.
///
/// A packet is read by itself: records never cross packets, so its batch and its sender do not
/// matter. Any thread.
std::vector<std::string> changesIn(const RvDatum& datum, std::int64_t cameAtMs,
                                   const ChangeFormat& format);

}  // namespace kvx::tool
