// Locks and thread pools under real threads.

#include <latch>

#include "foundation/foundation.h"

namespace {

// A work item that counts its runs; shared by the tests as the thread function's item.
struct Job {
    std::atomic<int> runs{0};
    void waitForRuns(int count) {
        for (int seen = runs; seen < count; seen = runs) runs.wait(seen);
    }
};

void runJob(void* item, void* context) {
    auto* job = static_cast<Job*>(item);
    if (context != nullptr) ++*static_cast<std::atomic<int>*>(context);
    ++job->runs;
    job->runs.notify_all();
}

// A job that shows when it runs and ends only when it is let go.
struct HeldJob {
    std::latch started{1};
    std::latch mayEnd{1};
    std::atomic<bool> ended{false};
};

void runHeldJob(void* item, void*) {
    auto* job = static_cast<HeldJob*>(item);
    job->started.count_down();
    job->mayEnd.wait();
    job->ended = true;
}

template <class Body>
void onThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(body);
    for (auto& thread : threads) thread.join();
}

}  // namespace

TEST(Locks, ExcludeOtherThreads) {
    CVekMutex mutex;
    CVekThread object;
    CVekAsymmetricMutex sides;
    int counters[3] = {};
    onThreads(4, [&] {
        for (int i = 0; i < 500; ++i) {
            if (const CVekAutoMutex guard(mutex); true) ++counters[0];
            if (const CVekThread::AutoMutex guard(object); true) ++counters[1];
            i % 2 == 0 ? sides.RAMLockLeft() : sides.RAMLockRight();
            ++counters[2];
            i % 2 == 0 ? sides.RAMUnLockLeft() : sides.RAMUnLockRight();
        }
    });
    for (const int counter : counters) EXPECT_EQ(counter, 2000);
}

TEST(Locks, GiveEveryThreadANumberOfItsOwn) {
    CVekMutex mutex;
    std::set<int> ids = {static_cast<int>(CVekThread::RTId())};
    for (int round = 0; round < 3; ++round) {
        onThreads(4, [&] {
            const int id = static_cast<int>(CVekThread::RTId());
            EXPECT_EQ(id, static_cast<int>(CVekThread::RTId()));
            const CVekAutoMutex guard(mutex);
            ids.insert(id);
        });
    }
    EXPECT_EQ(ids.size(), 13U);  // not even those of dead threads come again
    EXPECT_GT(*ids.begin(), 0);
}

TEST(ServPool, RunsEachItemOnceWithTheContext) {
    std::atomic<int> total{0};
    std::vector<Job> jobs(300);
    CVekServPool pool(4, &total);
    for (std::size_t i = 0; i < 100; ++i) EXPECT_EQ(pool.RSPAddWorkDetail(&jobs[i]), 1);
    pool.RSPLaunchThreads(&runJob);
    for (std::size_t i = 100; i < jobs.size(); ++i) pool.RSPAddWorkDetail(&jobs[i]);
    for (Job& job : jobs) job.waitForRuns(1);
    EXPECT_EQ(pool.RSPTakeWorkDetail(), nullptr);
    pool.RSPStopThreads();
    EXPECT_EQ(total, 300);
    EXPECT_EQ(pool.RSPAddWorkDetail(nullptr), -220552);
}

TEST(ServPool, HoldsStillWhileTheWorkLockIsTaken) {
    std::vector<Job> jobs(50);
    CVekServPool pool(3, nullptr);
    pool.RSPLaunchThreads(&runJob);
    pool.RSPWorkLock();
    for (Job& job : jobs) pool.RSPAddWorkDetail(&job);
    for (Job& job : jobs) EXPECT_EQ(pool.RSPTakeWorkDetail(), &job);
    EXPECT_EQ(pool.RSPTakeWorkDetail(), nullptr);
    pool.RSPWorkUnLock();
    Job marker;
    pool.RSPAddWorkDetail(&marker);
    marker.waitForRuns(1);
    for (const Job& job : jobs) EXPECT_EQ(job.runs, 0);
}

TEST(ServPool, LetsTheRunningItemFinishBeforeItDies) {
    HeldJob held;
    auto pool = std::make_unique<CVekServPool>(1, nullptr);
    pool->RSPLaunchThreads(&runHeldJob);
    pool->RSPAddWorkDetail(&held);
    held.started.wait();
    std::thread letGo([&] { held.mayEnd.count_down(); });
    pool.reset();
    EXPECT_TRUE(held.ended);
    letGo.join();
}

TEST(ServPool, StopsFromAnItemAndLeavesWhatWaitsToTheCaller) {
    std::latch stopped{1};
    struct Stopping {
        CVekServPool pool;
        std::latch& stopped;
    } stopping{{3, nullptr}, stopped};
    stopping.pool.RSPAddWorkDetail(&stopping);
    stopping.pool.RSPLaunchThreads([](void* item, void*) {
        auto& own = *static_cast<Stopping*>(item);
        own.pool.RSPStopThreads();
        own.stopped.count_down();
    });
    stopped.wait();
    stopping.pool.RSPStopThreads();
    Job never;
    EXPECT_EQ(stopping.pool.RSPAddWorkDetail(&never), 1);
    stopping.pool.RSPLaunchThreads(&runJob);  // stays stopped
    EXPECT_EQ(stopping.pool.RSPTakeWorkDetail(), &never);
    EXPECT_EQ(never.runs, 0);
}

TEST(TimedPool, RunsEveryRegisteredItemOnceAKick) {
    constexpr int kKicks = 40;
    std::vector<Job> jobs(5);
    CVekTimedPool pool(3);
    for (Job& job : jobs) EXPECT_EQ(pool.RSPAddWorkDetail(&job), 1);
    pool.RSPLaunchThreads(&runJob);
    for (int i = 0; i < kKicks; ++i) pool.RTPKickThreads();
    for (Job& job : jobs) job.waitForRuns(kKicks);
    pool.RSPStopThreads();
    for (const Job& job : jobs) EXPECT_EQ(job.runs, kKicks);
}

TEST(TimedPool, NeverMergesKicksBehindASlowItem) {
    HeldJob slow;
    CVekTimedPool pool(1);
    pool.RSPAddWorkDetail(&slow);
    pool.RSPLaunchThreads(&runHeldJob);
    pool.RTPKickThreads();
    slow.started.wait();
    Job job;
    pool.RSPAddWorkDetail(&job);
    for (int i = 0; i < 3; ++i) pool.RTPKickThreads();
    pool.RSPWorkLock();
    std::multiset<void*> runs;
    while (void* run = pool.RSPTakeWorkDetail()) runs.insert(run);
    pool.RSPWorkUnLock();
    slow.mayEnd.count_down();
    EXPECT_EQ(runs, (std::multiset<void*>{&slow, &slow, &slow, &job, &job, &job}));
}
