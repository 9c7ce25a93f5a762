#pragma once

#include <algorithm>
#include <vector>

namespace kvx::bench {

/// The results of one contestant in one round.
struct Figures {
    double p50 = 0;         // microseconds
    double p99 = 0;         // microseconds
    double throughput = 0;  // messages a second
};

/// Fills the latencies from single round trips, in microseconds.
inline void setLatencies(Figures& figures, std::vector<double> times) {
    std::sort(times.begin(), times.end());
    figures.p50 = times[times.size() / 2];
    figures.p99 = times[times.size() * 99 / 100];
}

}  // namespace kvx::bench
