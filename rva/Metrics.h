#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/Process.h"
#include "rva/Observations.h"

namespace kvx::rva {

/// The values of all metrics at one moment.
struct Sample {
    Figures bus;
    std::uint64_t requests = 0;  ///< HTTP requests answered
    platform::ProcessFigures process;
    std::int64_t startSeconds = 0;  ///< since the epoch
};

/// One line of the table of metrics. The unit is the last word of the name, or empty.
struct Metric {
    enum class Kind { Counter, Gauge };

    const char* name;
    Kind kind;
    const char* unit;
    const char* meaning;
    double (*value)(const Sample&);
};

/// All metrics, in output order.
[[nodiscard]] std::span<const Metric> metrics();

inline constexpr const char kMetricsType[] =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";

/// The metrics in OpenMetrics text form.
[[nodiscard]] std::string metricsText(const Sample& sample);

}  // namespace kvx::rva
