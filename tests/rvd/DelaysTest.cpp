#include "rvd/Delays.h"

#include "tests/support/LinkEnd.h"

namespace kvx::rvd {
namespace {

class Numbered : public Receiver {
  public:
    explicit Numbered(std::uint64_t number) : number_(number) {}
    void deliver(const PayloadRef&) override {}
    [[nodiscard]] std::uint64_t number() const override { return number_; }

  private:
    const std::uint64_t number_;
};

class DelaysTest : public testing::Test {
  protected:
    DelaysTest() { clock = 1'000'000'000; }
    // The copies that `asker` is told of, or nothing when it is refused.
    std::optional<std::uint64_t> ask(const Router::Session& asker, const std::string& pattern,
                                     platform::Milliseconds now = 0) {
        const auto found = delays.ask(asker, *Subject::fromText(pattern.c_str()), now);
        return found ? std::optional(found->copies) : std::nullopt;
    }
    DelayMark received(const Router::Session& from, const char* subject, bool isSampled = false) {
        return delays.mark(from, *Subject::fromText(subject), isSampled, clock);
    }

    static inline Nanoseconds clock;
    Counters counters;
    Router router{counters};
    Numbered one{1};
    Numbered two{2};
    Router::Session& first = router.join("", "", one);
    Router::Session& stranger = router.join("other", "", two);
    Delays delays{[] { return clock; }};
};

TEST_F(DelaysTest, AreOfWhatWasAskedForAndNothingElse) {
    EXPECT_FALSE(received(first, "A.B"));
    EXPECT_EQ(ask(first, "A.*"), 0U);
    EXPECT_EQ(ask(first, "A.>"), 0U);
    EXPECT_FALSE(received(first, "B"));
    EXPECT_FALSE(received(stranger, "A.B"));
    const DelayMark mark = received(first, "A.B");
    const DelayMark longer = received(first, "A.B.C", true);
    clock += 5'000;
    for (int copy = 0; copy < 3; ++copy) delays.handedOver(mark);
    delays.handedOver(longer);
    EXPECT_EQ(ask(first, "A.*"), 3U);
    EXPECT_EQ(ask(first, "A.>"), 4U);
    EXPECT_EQ(delays.ofSamples().copies, 1U);
    EXPECT_EQ(delays.ofSamples().most, 5'000U);
}

TEST_F(DelaysTest, OfAnEarlierProbeAreNotThoseOfTheOneInItsPlace) {
    EXPECT_EQ(ask(first, "A"), 0U);
    const DelayMark old = received(first, "A");
    clock += 100;
    delays.tick(Delays::kLeaseMs);
    EXPECT_EQ(ask(first, "A", Delays::kLeaseMs), 0U);
    delays.handedOver(old);
    EXPECT_EQ(ask(first, "A", Delays::kLeaseMs), 1U) << "it was asked again in time";
    delays.tick(2 * Delays::kLeaseMs + 1);
    delays.handedOver(old);
    EXPECT_FALSE(received(first, "A"));
    EXPECT_EQ(ask(first, "A", 2 * Delays::kLeaseMs + 1), 0U);
    delays.handedOver(old);
    EXPECT_EQ(ask(first, "A", 2 * Delays::kLeaseMs + 1), 0U);
}

TEST_F(DelaysTest, AreMeasuredForSoManyAtATime) {
    for (std::size_t i = 0; i < Delays::kProbes; ++i)
        EXPECT_TRUE(ask(first, "A" + std::to_string(i)));
    EXPECT_FALSE(ask(stranger, "A0"));
    EXPECT_TRUE(ask(first, "A0", Delays::kLeaseMs));
    delays.tick(Delays::kLeaseMs + 1);
    EXPECT_EQ(ask(stranger, "A0", Delays::kLeaseMs + 1), 0U) << "the others were not asked again";
    EXPECT_TRUE(ask(first, "A0", Delays::kLeaseMs + 1));
    for (std::size_t i = 0; i < Delays::kProbes - 2; ++i)
        EXPECT_TRUE(ask(stranger, "B" + std::to_string(i), Delays::kLeaseMs + 1));
    EXPECT_FALSE(ask(first, "C", Delays::kLeaseMs + 1));
    delays.forget(stranger);
    EXPECT_TRUE(ask(first, "C", Delays::kLeaseMs + 1));
    EXPECT_TRUE(received(first, "A0"));
}

TEST(Histogram, HasEveryQuantileOfAnyNumbersWithinOnePercent) {
    std::mt19937_64 random(7);
    for (const double spread : {0.0, 3.0, 30.0}) {
        Histogram histogram;
        std::vector<std::uint64_t> numbers;
        for (int i = 0; i < 10'000; ++i) {
            const double exponent = std::uniform_real_distribution(0.0, spread)(random);
            numbers.push_back(static_cast<std::uint64_t>(1'000 * std::exp2(exponent)));
            histogram.add(numbers.back());
        }
        std::ranges::sort(numbers);
        for (const double share : {0.0, 0.1, 0.5, 0.9, 0.999, 1.0}) {
            const auto rank =
                std::max<std::size_t>(static_cast<std::size_t>(std::ceil(share * 10'000)), 1);
            const auto exact = static_cast<double>(numbers[rank - 1]);
            EXPECT_NEAR(static_cast<double>(histogram.quantile(share)), exact, 0.01 * exact)
                << share << " of " << spread;
        }
        EXPECT_EQ(histogram.least(), numbers.front());
        EXPECT_EQ(histogram.most(), numbers.back());
    }
}

TEST(Histogram, TakesAnyNumberAndHasNoneWithoutOne) {
    Histogram histogram;
    EXPECT_EQ(histogram.quantile(0.5), 0U);
    EXPECT_EQ(histogram.least(), 0U);
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{63}, std::uint64_t{64},
                                       Histogram::kMost, ~std::uint64_t{0}}) {
        histogram.add(number);
    }
    std::uint64_t end = 0;
    std::uint64_t count = 0;
    histogram.eachOctave([&](std::uint64_t from, std::uint64_t below, std::uint64_t some) {
        EXPECT_GE(from, end);
        end = below;
        count += some;
    });
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(end, Histogram::kMost + 1);
    EXPECT_EQ(histogram.most(), Histogram::kMost);
}

}  // namespace
}  // namespace kvx::rvd
