#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "rva/Observations.h"
#include "rva/Samples.h"

namespace kvx::rva {

/// The values of all metrics at one moment.
struct Sample {
    Figures bus;
    std::uint64_t requests = 0;  ///< HTTP requests answered
    platform::ProcessFigures process;
    std::int64_t startSeconds = 0;  ///< since the epoch
};

/// One line of the table of metrics. Names follow the conventions of Prometheus: base units, and
/// "_total" for counters.
struct Metric {
    enum class Kind { Counter, Gauge };

    std::string name;
    Kind kind;
    std::string labels;  ///< the names of the labels, separated by spaces
    std::string meaning;
    /// Adds no sample for what is not known.
    std::function<void(const Sample&, Samples&)> collect;
};

/// All metrics, in output order.
[[nodiscard]] const std::vector<Metric>& metrics();

inline constexpr const char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

/// The metrics in the text form of Prometheus; those that have samples.
[[nodiscard]] std::string metricsText(const Sample& sample);

}  // namespace kvx::rva
