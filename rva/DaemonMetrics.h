#pragma once

#include <vector>

#include "rva/Metrics.h"

namespace kvx::rva {

/// The metrics of the daemon, from what it answers about itself.
[[nodiscard]] std::vector<Metric> daemonMetrics();

}  // namespace kvx::rva
