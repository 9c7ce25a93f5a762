// A thousand seeds of the simulated world. KVX_SIM_SEED=n runs one and, when it fails, shows what
// happens in its shortest schedule; KVX_SIM_SEEDS=first-last runs others than the usual ones.

#include "tests/sim/Schedule.h"
#include "tests/support/Sanitizer.h"

namespace kvx::sim {
namespace {

constexpr std::uint64_t kSeeds = test::kIsWatched ? 100 : 1'000;

std::string textOf(const Schedule& schedule) {
    std::string text;
    for (const Action& action : schedule) text += "  " + action.text() + "\n";
    return text;
}

// True when the seed holds; otherwise says how little of its schedule fails.
bool expectHolds(std::uint64_t seed, bool verbose) {
    const Outcome outcome = run(seed, scheduleOf(seed));
    if (outcome.fault.empty()) return true;
    const Schedule shortest = shrink(scheduleOf(seed), [seed](const Schedule& schedule) {
        return !run(seed, schedule).fault.empty();
    });
    ADD_FAILURE() << "KVX_SIM_SEED=" << seed << " fails: " << outcome.fault << "\nshortest, "
                  << run(seed, shortest, verbose).fault << ":\n"
                  << textOf(shortest);
    return false;
}

TEST(Simulation, HoldsEveryInvariant) {
    std::uint64_t first = 1;
    std::uint64_t last = kSeeds;
    const char* const one = std::getenv("KVX_SIM_SEED");
    if (one != nullptr) first = last = std::strtoull(one, nullptr, 10);
    if (const char* range = std::getenv("KVX_SIM_SEEDS")) {
        ASSERT_EQ(std::sscanf(range, "%lu-%lu", &first, &last), 2);
    }
    int failed = 0;
    for (std::uint64_t seed = first; seed <= last && failed < 3; ++seed)
        failed += expectHolds(seed, one != nullptr) ? 0 : 1;
}

TEST(Simulation, RepeatsBySeed) {
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        const Outcome once = run(seed, scheduleOf(seed));
        EXPECT_EQ(once.trace, run(seed, scheduleOf(seed)).trace);
        EXPECT_NE(once.trace, run(seed + 1, scheduleOf(seed + 1)).trace);
    }
}

TEST(Simulation, ShrinksToWhatMatters) {
    const Schedule whole = scheduleOf(7);
    const auto has = [](const Schedule& part, const Action& action) {
        return textOf(part).find(action.text()) != std::string::npos;
    };
    const Schedule part = shrink(whole, [&](const Schedule& tried) {
        return has(tried, whole[3]) && has(tried, whole[whole.size() - 2]);
    });
    EXPECT_EQ(part.size(), 2U);
}

}  // namespace
}  // namespace kvx::sim
