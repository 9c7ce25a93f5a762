// How polls of one frequency are spread over the ticks of their period.

#include "mom/timed/CVekTimedWorkDist.h"
#include "mom/timed/CVekTimedWorkDistBucket.h"
#include "tests/mom/timed/Polls.h"
#include "tests/support/ErrorRecorder.h"

using namespace kvx::test;

namespace {

// A distribution of `count` polls named 0, 1, ...
struct Fixture {
    Fixture(int count, int frequency) : dist(&manager, frequency) {
        for (int i = 0; i < count; ++i) add(std::to_string(i));
    }
    CountingPoll& add(const std::string& name) {
        polls.push_back(std::make_unique<CountingPoll>(name, dist.RTWDGetFrequency()));
        EXPECT_EQ(dist.RTWDAddPoll(polls.back().get()), 1);
        return *polls.back();
    }
    Names tick() {
        EXPECT_EQ(dist.RTWDOnTimer(), 1);
        return manager.takeQueued();
    }
    // What a whole period runs, tick by tick.
    std::vector<Names> period() {
        std::vector<Names> ticks;
        for (int i = 0; i < dist.RTWDGetFrequency(); ++i) ticks.push_back(tick());
        return ticks;
    }

    RecordingMgr manager;
    std::vector<std::unique_ptr<CountingPoll>> polls;
    CVekTimedWorkDist dist;
};

std::vector<int> bucketsOf(int count, int frequency) {
    Fixture fixture(count, frequency);
    fixture.dist.RTWDDistributePolls();
    std::vector<int> keys;
    for (const auto& poll : fixture.polls) keys.push_back(poll->RTWBucketKey());
    return keys;
}

}  // namespace

TEST(TimedWorkDist, SpreadsLikeTheseExamples) {
    EXPECT_EQ(bucketsOf(13, 10), (std::vector{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 2, 5, 8}));
    EXPECT_EQ(bucketsOf(4, 10), (std::vector{1, 4, 6, 9}));
    EXPECT_EQ(bucketsOf(1, 60), (std::vector{30}));
    EXPECT_EQ(bucketsOf(3, 4), (std::vector{1, 2, 3}));
    EXPECT_EQ(bucketsOf(7, 3), (std::vector{0, 1, 2, 0, 1, 2, 2}));
    EXPECT_EQ(bucketsOf(5, 1), (std::vector{0, 0, 0, 0, 0}));
}

TEST(TimedWorkDist, RunsEveryPollOncePerPeriodWithAnEvenLoad) {
    const ErrorRecorder errors;
    for (int frequency = 1; frequency <= 40; ++frequency) {
        for (int count = 0; count <= 3 * frequency + 1; ++count) {
            Fixture fixture(count, frequency);
            fixture.dist.RTWDDistributePolls();
            std::multiset<std::string> ran;
            std::size_t least = SIZE_MAX;
            std::size_t most = 0;
            for (const Names& tick : fixture.period()) {
                ran.insert(tick.begin(), tick.end());
                least = std::min(least, tick.size());
                most = std::max(most, tick.size());
            }
            const std::set<std::string> once(ran.begin(), ran.end());
            SCOPED_TRACE(std::to_string(count) + " polls, every " + std::to_string(frequency));
            ASSERT_EQ(ran.size(), static_cast<std::size_t>(count));
            ASSERT_EQ(once.size(), ran.size());
            ASSERT_LE(most - least, 1U);
        }
    }
}

TEST(TimedWorkDist, SpreadsLargeRemaindersOverDifferentBuckets) {
    ErrorRecorder errors;
    for (const int frequency : {997, 3600, 86400}) {
        for (const int count : {1, 2, frequency / 3, frequency - 1}) {
            const std::vector<int> keys = bucketsOf(count, frequency);
            EXPECT_GE(keys.front(), 0);
            EXPECT_LT(keys.back(), frequency);
            const int slice = frequency / count;
            for (std::size_t i = 1; i < keys.size(); ++i) {
                EXPECT_GE(keys[i] - keys[i - 1], slice);
                EXPECT_LE(keys[i] - keys[i - 1], slice + 1);
            }
        }
    }
    EXPECT_TRUE(errors.take().empty());
}

TEST(TimedWorkDist, RunsNothingBeforeTheDistributionAndAfterADeletionUntilTheNext) {
    Fixture fixture(2, 1);
    EXPECT_EQ(fixture.tick(), Names{});
    fixture.dist.RTWDDistributePolls();
    EXPECT_EQ(fixture.tick(), (Names{"0", "1"}));
    CountingPoll unknown("unknown", 1);
    EXPECT_EQ(fixture.dist.RTWDDeletePoll(&unknown), 1);
    EXPECT_EQ(fixture.tick(), Names{});
    EXPECT_EQ(fixture.dist.RTWDDeletePoll(fixture.polls[0].get()), 1);
    fixture.dist.RTWDDistributePolls();
    EXPECT_EQ(fixture.tick(), Names{"1"});
}

TEST(TimedWorkDist, KeepsTheFirstPollOfAName) {
    Fixture fixture(1, 1);
    CountingPoll twin("0", 1);
    const DebugLevel level(-1);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(fixture.dist.RTWDAddPoll(&twin), -220566); }),
              "Warning: CVekTimedWorkDist::RTWDAddPoll duplcate object 0\n");
    fixture.dist.RTWDDistributePolls();
    EXPECT_EQ(fixture.polls[0]->RTWBucketKey(), 0);
    EXPECT_EQ(twin.RTWBucketKey(), -1);
}

TEST(TimedWorkDist, TicksWithoutAPeriodAndRefusesANullPoll) {
    ErrorRecorder errors;
    for (const int frequency : {0, -1, -5}) {
        RecordingMgr manager;
        CVekTimedWorkDist dist(&manager, frequency);
        CountingPoll poll("0", 1);
        dist.RTWDAddPoll(&poll);
        EXPECT_EQ(dist.RTWDDistributePolls(), 1);
        EXPECT_EQ(dist.RTWDOnTimer(), 1);
        EXPECT_TRUE(manager.queued.empty());
    }
    EXPECT_EQ(errors.take(), std::vector(2, Report{-220552, "CVekTimedWorkDist", 0,
                                                   "CVekTimedWorkDist::CVekTimedWorkDist"}));

    Fixture fixture(1, 1);
    fixture.add("");
    EXPECT_EQ(fixture.dist.RTWDAddPoll(nullptr), -220552);
    EXPECT_EQ(fixture.dist.RTWDChangePoll(nullptr), -220552);
    EXPECT_EQ(fixture.dist.RTWDDeletePoll(nullptr), -220552);
    fixture.dist.RTWDDistributePolls();
    EXPECT_EQ(fixture.tick(), (Names{"0", ""}));

    CVekTimedWorkDistBucket bucket(&fixture.manager, 0);
    bucket.RTWDBAddPoll(nullptr);
    bucket.RTWDBChangePoll(nullptr);
    bucket.RTWDBDoPolling();
    EXPECT_EQ(errors.take(), std::vector(2, Report{-220552, "CVekTimedWorkDistBucket", 0, ""}));
}
