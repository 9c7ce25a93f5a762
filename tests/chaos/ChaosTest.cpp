// KVX_CHAOS_SEED=n repeats a run (as far as real processes can), KVX_CHAOS_FAULTS=n does more.

#include "tests/chaos/Chaos.h"
#include "tests/support/Sanitizer.h"

namespace kvx::chaos {
namespace {

constexpr int kFaults = test::kIsWatched ? 100 : 500;

int numberIn(const char* variable, int otherwise) {
    const char* const text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
}

TEST(ChaosTest, NobodyIsDeafNothingIsDoubledAndWhatIsLostIsTold) {
    const int seed = numberIn("KVX_CHAOS_SEED", 1);
    const int faults = numberIn("KVX_CHAOS_FAULTS", kFaults);
    Chaos chaos(static_cast<unsigned>(seed));
    std::string wrong = chaos.wave(0);
    for (int told = 1'000; wrong.empty() && chaos.faults() < faults;) {
        wrong = chaos.wave(faults - chaos.faults());
        if (chaos.faults() < told) continue;
        std::printf("%s\n", chaos.summary().c_str());
        std::fflush(stdout);
        told += 1'000;
    }
    if (wrong.empty()) wrong = chaos.finish();
    EXPECT_EQ(wrong, "") << "KVX_CHAOS_SEED=" << seed << ", after\n" << chaos.story();
    std::printf("%s\n", chaos.summary().c_str());
}

}  // namespace
}  // namespace kvx::chaos
