#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kvx::bench {

/// Keeps the compiler from removing a computation whose result is not used.
template <class Value>
void keep(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

/// The value below which `part` of all lie; the median by default. `values` must not be empty.
inline double quantile(std::vector<double> values, double part = 0.5) {
    const auto last = static_cast<double>(values.size() - 1);
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(part * last + 0.5);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

/// One way to do the work: `run(n)` does it n times.
struct Contestant {
    std::string name;
    std::function<void(std::size_t)> run;
    double nanoseconds = 0;  // median per run, set by `measure`
};

inline double timeOnce(const Contestant& contestant, std::size_t times) {
    const auto start = std::chrono::steady_clock::now();
    contestant.run(times);
    const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
    return spent.count() / static_cast<double>(times);
}

/// Runs every contestant in turn, for `rounds` rounds, and stores the median of each: a disturbance
/// of the machine affects all of them.
inline void measure(std::vector<Contestant>& contestants, std::size_t times, int rounds = 31) {
    std::vector<std::vector<double>> samples(contestants.size());
    for (const Contestant& contestant : contestants) timeOnce(contestant, times);
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < contestants.size(); ++i) {
            samples[i].push_back(timeOnce(contestants[i], times));
        }
    }
    for (std::size_t i = 0; i < contestants.size(); ++i) {
        contestants[i].nanoseconds = quantile(std::move(samples[i]));
    }
}

/// Prints one row for each contestant, with the ratio to the first.
inline void printRows(const char* question, const std::vector<Contestant>& contestants) {
    for (const Contestant& contestant : contestants) {
        std::printf("%-30s %-26s %10.1f %8.2f\n", question, contestant.name.c_str(),
                    contestant.nanoseconds,
                    contestant.nanoseconds / contestants.front().nanoseconds);
    }
}

}  // namespace kvx::bench
