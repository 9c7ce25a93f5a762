// A day of ticks, driven by hand, with real pools: every poll runs as often as its frequency says,
// on its tick, whatever other threads add, delete, change and suspend in between.

#include "tests/mom/timed/Polls.h"
#include "tests/support/ChildProcess.h"

using namespace kvx::test;

namespace {

// Which polls have run since the last tick. Work threads write it, the day waits for it.
class Log {
  public:
    void add(const std::string& name) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_ran.insert(name);
        m_changed.notify_all();
    }
    // What has run, as soon as it is at least `count`; less only when a minute passed.
    std::multiset<std::string> await(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::minutes(1), [&] { return m_ran.size() >= count; });
        return std::exchange(m_ran, {});
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::multiset<std::string> m_ran;
};

constexpr int kTicks = 1440;  // a day of minutes
constexpr int kFrequencies[] = {2, 3, 5, 7, 15, 60};

// A manager under a random sequence of changes, and a model of what it should run.
//
// The distribution of the beacon, which runs at every tick, is made last, and one poll thread ticks
// the distributions in the order of their making: when the beacon has run, all of them have ticked.
class Day {
  public:
    explicit Day(unsigned seed) : m_random(seed) {
        for (const int frequency : kFrequencies) addPoll(frequency);
        addPoll(1);  // the beacon
        distribute();
    }

    void tick() {
        m_manager.onTimer(nullptr);
        if (m_suspended) return;
        const auto expected = takeDue();
        ASSERT_EQ(m_log.await(expected.size()), expected);
    }

    // One random change, on a thread of its own.
    void change() {
        std::thread([this] {
            switch (m_random() % 8) {
                case 0:
                    return addPoll(anyFrequency());
                case 1:
                    return changeAnyPoll(&Day::deletePoll);
                case 2:
                    return changeAnyPoll(&Day::replacePoll);
                case 3:
                    return changeAnyPoll(&Day::movePoll);
                case 4:
                    return changeAnyPoll(&Day::repeatPoll);
                case 5:
                    m_suspended = !m_suspended;
                    return m_suspended ? m_manager.RTWMSuspendTimedWork()
                                       : m_manager.RTWMResumeTimedWork();
                default:
                    return distribute();
            }
        }).join();
    }

    // What is left over when all threads have ended.
    std::multiset<std::string> takeLate() { return m_log.await(0); }

  private:
    struct Group {
        std::vector<CountingPoll*> polls;  // what the manager knows
        std::vector<CountingPoll*> due;    // what stands in buckets
        int position = 0;
        bool isMarked = false;
    };

    int anyFrequency() { return kFrequencies[m_random() % std::size(kFrequencies)]; }

    CountingPoll* newPoll(const std::string& name, int frequency) {
        m_polls.push_back(std::make_unique<CountingPoll>(name, frequency));
        m_polls.back()->onRun = [this, name] { m_log.add(name); };
        return m_polls.back().get();
    }

    // Changes a poll of a random group, when that has one.
    void changeAnyPoll(void (Day::*how)(CountingPoll*, Group&)) {
        Group& group = m_groups[anyFrequency()];
        if (group.polls.empty()) return;
        (this->*how)(group.polls[m_random() % group.polls.size()], group);
    }

    void addPoll(int frequency) {
        CountingPoll* const poll = newPoll(std::to_string(m_polls.size()), frequency);
        EXPECT_EQ(m_manager.RTWMAddPoll(poll), 1);
        know(poll, frequency);
    }
    void know(CountingPoll* poll, int frequency) {
        m_groups[frequency].polls.push_back(poll);
        m_groups[frequency].isMarked = true;
    }
    static void forget(CountingPoll* poll, Group& group) {
        std::erase(group.polls, poll);
        group.due.clear();
        group.isMarked = true;
    }

    void deletePoll(CountingPoll* poll, Group& group) {
        EXPECT_EQ(m_manager.RTWMDeletePoll(poll), 1);
        forget(poll, group);
    }
    void replacePoll(CountingPoll* poll, Group& group) {
        CountingPoll* const twin = newPoll(poll->name(), poll->RTWFrequency());
        EXPECT_EQ(m_manager.RTWMChangePoll(poll, twin), 1);
        std::ranges::replace(group.polls, poll, twin);
        std::ranges::replace(group.due, poll, twin);
    }

    void movePoll(CountingPoll* poll, Group& group) {
        const int frequency = anyFrequency();
        if (frequency == poll->RTWFrequency()) return;
        EXPECT_EQ(m_manager.RTWMChangePollFrequency(poll, frequency), 1);
        forget(poll, group);
        know(poll, frequency);
    }

    void repeatPoll(CountingPoll* poll, Group& /*group*/) {
        m_manager.RTWMAddRepeatPoller(poll);
        m_repeated.insert(poll->name());
    }

    void distribute() {
        EXPECT_EQ(m_manager.RTWMDistributePolls(), 1);
        for (auto& [frequency, group] : m_groups) {
            if (group.isMarked) group.due = group.polls;
            group.isMarked = false;
        }
    }

    std::multiset<std::string> takeDue() {
        auto expected = std::exchange(m_repeated, {});
        for (auto& [frequency, group] : m_groups) {
            for (CountingPoll* poll : group.due) {
                EXPECT_GE(poll->RTWBucketKey(), 0);
                EXPECT_LT(poll->RTWBucketKey(), frequency);
                if (poll->RTWBucketKey() == group.position) expected.insert(poll->name());
            }
            group.position = (group.position + 1) % frequency;
        }
        return expected;
    }

    std::mt19937 m_random;
    Log m_log;
    std::vector<std::unique_ptr<CountingPoll>> m_polls;
    std::map<int, Group> m_groups;  // by frequency
    std::multiset<std::string> m_repeated;
    bool m_suspended = false;
    CVekTimedWorkMgr m_manager{nullptr, 1, 1000, 4, nullptr, FALSE};
};

}  // namespace

TEST(SimulatedDay, RunsEveryPollOnItsTickAcrossChangesOfOtherThreads) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE(seed);
        Day day(seed);
        std::mt19937 random(seed);
        for (int i = 0; i < kTicks; ++i) {
            if (random() % 3 == 0) day.change();
            ASSERT_NO_FATAL_FAILURE(day.tick()) << "tick " << i;
        }
        EXPECT_TRUE(day.takeLate().empty());
    }
}

// Polls of frequencies that nobody changes run exactly once a period while others come, go and move
// at the same time.
TEST(SimulatedDay, IsTheSameForPollsThatAreLeftAloneWhileOthersChange) {
    constexpr int kPeriods = 20;
    constexpr int kRest = 60;  // ticks; a multiple of each frequency below
    std::vector<std::unique_ptr<CountingPoll>> steady;
    CountingPoll restless[] = {{"a", 7}, {"b", 7}, {"c", 11}};
    {
        CVekTimedWorkMgr manager(nullptr, 2, 1000, 4, nullptr, FALSE);
        for (int i = 0; i < 60; ++i) {
            constexpr int kLeftAlone[] = {1, 4, 15, 60};
            steady.push_back(std::make_unique<CountingPoll>(std::to_string(i), kLeftAlone[i % 4]));
            EXPECT_EQ(manager.RTWMAddPoll(steady.back().get()), 1);
        }
        manager.RTWMDistributePolls();
        std::atomic<bool> isOver = false;
        std::vector<std::thread> changers;
        for (CountingPoll& poll : restless) {
            changers.emplace_back([&] {
                for (int round = 0; !isOver; ++round) {
                    manager.RTWMAddPoll(&poll);
                    manager.RTWMDistributePolls();
                    manager.RTWMChangePollFrequency(&poll, round % 2 == 0 ? 11 : 7);
                    manager.RTWMAddRepeatPoller(&poll);
                    manager.RTWMDeletePoll(&poll);
                }
            });
        }
        for (int tick = 1; tick <= kPeriods * kRest; ++tick) {
            manager.onTimer(nullptr);
            if (tick % kRest != 0) continue;
            const auto isDue = [&](const auto& poll) {
                return poll->runs == tick / poll->RTWFrequency();
            };
            EXPECT_TRUE(eventually([&] { return std::ranges::all_of(steady, isDue); })) << tick;
        }
        isOver = true;
        for (std::thread& changer : changers) changer.join();
    }
    for (const auto& poll : steady) EXPECT_EQ(poll->runs, kPeriods * kRest / poll->RTWFrequency());
}
