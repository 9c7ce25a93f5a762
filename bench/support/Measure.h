#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kvx::bench {

/// Keeps the compiler from removing a computation whose result is not used.
template <class Value>
void keep(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
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
        const auto middle = samples[i].begin() + rounds / 2;
        std::nth_element(samples[i].begin(), middle, samples[i].end());
        contestants[i].nanoseconds = *middle;
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
