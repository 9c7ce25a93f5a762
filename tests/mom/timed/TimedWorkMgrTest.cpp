// The manager's sets, its refusals, suspension, workers, and those that wait for an answer.

#include <barrier>

#include "mom/timed/CVekBlockedWorkMgr.h"
#include "mom/timed/CVekPollResponse.h"
#include "tests/mom/timed/Polls.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ErrorRecorder.h"

using namespace kvx::test;

TEST(TimedWorkMgr, RefusesAFrequencyBelowOneAndSkipsAPollThatRefuses) {
    RecordingMgr manager;
    CountingPoll never("never", -5);
    const auto refusal = [&] {
        return errorOutputOf([&] { EXPECT_EQ(manager.RTWMAddPoll(&never), -220383); });
    };
    EXPECT_EQ(refusal(), "");
    const DebugLevel level(-1);
    EXPECT_EQ(refusal(), "Warning: Illegal Frequency -5 defined for never poll not strobed\n");
    never.RTWSetFrequency(0);
    EXPECT_EQ(refusal(), "Warning: Illegal Frequency 0 defined for never poll not strobed\n");
    never.accepts = false;
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(manager.RTWMAddPollWork(&never), 1); }),
              "m_PollPool->RSPAddWorkDetail never failed\n");
    EXPECT_FALSE(never.RTWPollIsExecuting());
    EXPECT_TRUE(manager.queued.empty());
}

TEST(TimedWorkMgr, MovesAPollAndRedistributesEachChangedFrequencyOnce) {
    const DebugLevel level(4);
    RecordingMgr manager;
    CountingPoll poll("p", 2);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(manager.RTWMChangePollFrequency(&poll, 2), 1); }), "");
    manager.RTWMAddPoll(&poll);
    EXPECT_EQ(outputOf([&] {
                  EXPECT_EQ(manager.RTWMChangePollFrequency(&poll, 3), 1);
                  manager.RTWMDistributePolls();
              }),
              "CVekTimedWorkDist::RTWDDeletePoll p\nCVekTimedWorkDist::RTWDAddPoll p\n"
              "CVekTimedWorkDist::RTWDDistributePolls 2\n"
              "CVekTimedWorkDist::RTWDDistributePolls 3\nRTWDAddToBucket 2 p\n");
    EXPECT_EQ(outputOf([&] { manager.RTWMDistributePolls(); }), "");
    CountingPoll twin("p", 3);
    EXPECT_EQ(outputOf([&] {
                  manager.RTWMChangePoll(&poll, &twin);
                  manager.RTWMDeletePoll(&twin);
                  manager.RTWMDeletePoll(&twin);
              }),
              "CVekTimedWorkDist::RTWDChangePoll p\nCVekTimedWorkDist::RTWDDeletePoll p\n"
              "CVekTimedWorkDist::RTWDDeletePoll p\n"
              "poller->RTWName()->RAString(): p does not exist\n");
    EXPECT_EQ(manager.RTWMChangePollFrequency(&poll, 0), -220383);
    EXPECT_EQ(poll.RTWFrequency(), 0);
}

// Under the thread sanitizer this also shows every access to the frequency without the lock.
TEST(TimedWorkMgr, KeepsAPollInOneFrequencyWhenTwoThreadsMoveIt) {
    constexpr int kRounds = 3000;
    RecordingMgr manager;
    CountingPoll poll("p", 1);
    manager.RTWMAddPoll(&poll);
    int homes = 0;
    std::barrier together(2, [&]() noexcept {
        manager.RTWMDistributePolls();
        for (const unsigned long frequency : {1, 2, 3}) {
            const CVekPointer* entry = manager.m_Dists.RHLGet(frequency);
            for (unsigned long tick = 0; entry != nullptr && tick < frequency; ++tick) {
                TimedPollThreadFn(entry->RPData(), nullptr);
            }
        }
        homes += static_cast<int>(manager.takeQueued().size());
        manager.RTWMChangePollFrequency(&poll, 1);
    });
    const auto move = [&](int frequency) {
        for (int round = 0; round < kRounds; ++round) {
            together.arrive_and_wait();
            EXPECT_EQ(manager.RTWMChangePollFrequency(&poll, frequency), 1);
        }
        together.arrive_and_wait();
    };
    std::thread other(move, 2);
    move(3);
    other.join();
    EXPECT_EQ(homes, kRounds + 1);
}

// What a poll's override calls while the manager asks it: everything at the tick of the main
// thread, and what needs no lock of the manager at the tick of a distribution.
TEST(TimedWorkMgr, NeverWaitsForItselfWhenAPollCallsBack) {
    RecordingMgr manager;
    CountingPoll poll("p", 1);
    CountingPoll other("other", 1);
    poll.onAsked = [&] {
        EXPECT_EQ(manager.RTWMAddPoll(&other), 1);
        EXPECT_EQ(manager.RTWMDistributePolls(), 1);
        manager.RTWMAddRepeatPoller(&other);
    };
    manager.RTWMAddRepeatPoller(&poll);
    manager.onTimer(nullptr);
    EXPECT_EQ(manager.takeQueued(), Names{"p"});
    manager.onTimer(nullptr);
    EXPECT_EQ(manager.takeQueued(), Names{"other"});

    manager.RTWMAddPoll(&poll);
    manager.RTWMDistributePolls();
    ErrorRecorder errors;
    poll.onAsked = [&] {
        manager.RTWMAddRepeatPoller(&other);
        EXPECT_EQ(manager.RTWMAddPollWork(&other), 1);
        EXPECT_EQ(manager.RTWMDeletePoll(&poll), -220439);
        EXPECT_EQ(RecordingMgr().RTWMAddPoll(&other), 1) << "another manager's locks are free";
    };
    TimedPollThreadFn(manager.m_Dists.RHLGet(1UL)->RPData(), nullptr);
    EXPECT_EQ(manager.takeQueued(), (Names{"other", "other", "p"}));
    EXPECT_EQ(errors.take(), std::vector(1, Report{-220439, "CVekTimedWorkMgr", 0,
                                                   "called under a lock of the manager"}));
}

TEST(TimedWorkMgr, DiscardsWhatWaitsWhenItIsSuspendedAndHoldsNoLockMeanwhile) {
    CountingPoll poll("poll", 1);
    // Threads that tick distributions, but none that work: workers stay in the queue.
    CVekTimedWorkMgr manager(nullptr, 1, 1000, 0, nullptr, FALSE);
    int freed = 0;
    poll.onFree = [&] {
        ++freed;
        manager.RTWMResumeTimedWork();
    };
    manager.RTWMAddPollWork(&poll);
    EXPECT_TRUE(poll.RTWPollIsExecuting());
    manager.RTWMSuspendTimedWork();
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(manager.m_Suspended, FALSE);
    poll.onFree = nullptr;
    manager.RTWMSuspendTimedWork();

    const DebugLevel level(1);
    EXPECT_EQ(outputOf([&] { manager.RTWMAddPollWork(&poll); }),
              "m_PollPool->RSPAddWorkDetail poll failed\n");
    manager.RTWMAddRepeatPoller(&poll);
    manager.onTimer(nullptr);
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    EXPECT_EQ(manager.RTWMAddPollWork(new CVekTimedWorker(&poll)), 1);
    EXPECT_TRUE(poll.RTWPollIsExecuting());
    manager.RTWMSuspendTimedWork();
    manager.RTWMResumeTimedWork();
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    manager.onTimer(nullptr);
    EXPECT_TRUE(poll.RTWPollIsExecuting());
}

TEST(TimedWorkMgr, FinishesWhatRunsAndDropsWhatWaitsWhenItDies) {
    CountingPoll poll("poll", 1);
    std::atomic<int> calls = 0;
    {
        CVekTimedWorkMgr manager(nullptr, 2, 1000, 2, nullptr, FALSE);
        const auto count = [](void* calls_) { ++*static_cast<std::atomic<int>*>(calls_); };
        EXPECT_EQ(manager.RTWMAddPollWork(count, &calls), 1);
        EXPECT_TRUE(eventually([&] { return calls == 1; }));
        for (int i = 0; i < 1000; ++i) manager.RTWMAddPollWork(&poll);
    }
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    EXPECT_LE(poll.runs, 1000);
}

TEST(TimedWorker, IsNamedAfterItsPollAndMarksIt) {
    ErrorRecorder errors;
    CountingPoll poll("poll", 1);
    {
        CVekTimedWorker worker(&poll);
        EXPECT_STREQ(worker.RTWName(), "poll");
        EXPECT_EQ(worker.GetTimedPoll(), &poll);
        EXPECT_EQ(worker.RTWStatus(), RTW_STATUS_NEW);
        EXPECT_TRUE(poll.RTWPollIsExecuting());
        EXPECT_EQ(worker.RLTargetDeepCopy(&worker), nullptr);
    }
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    CVekTimedWorker idle(static_cast<CVekTimedWork*>(nullptr));
    idle.RTWDoWork();
    EXPECT_STREQ(idle.RTWName(), "");
    EXPECT_EQ(errors.take(),
              (std::vector{Report{-220440, "CVekTimedWorkMgr", 0,
                                  "Implementation error: RLTargetDeepCopy called for "
                                  "CVekTimedWorker"},
                           Report{-220552, "CVekTimedWorkMgr", 0, ""}}));
}

// Workers that wait for an answer: counted down, run again, dropped.

using namespace kvx::test;

namespace {

static_assert(std::has_virtual_destructor_v<CVekPollResponse>);

struct Answer : CVekPollResponse {
    int PRPollState() override {
        if (onAsked) onAsked();
        return state;
    }
    std::atomic<int> state = 0;
    std::function<void()> onAsked;
};

// One worker, parked on `answer`.
struct BlockedWork : testing::Test {
    BlockedWork() {
        worker->RTWSetBlockingPoll(&answer);
        worker->RTWSetStatus(RTW_STATUS_BLOCKED);
        blocked.BWMAddBlockedWork(worker);
    }
    Names pass() {
        blocked.BWMProcessBlockedWork();
        return manager.takeQueued();
    }

    CountingPoll poll{"poll", 1};
    Answer answer;
    RecordingMgr manager;
    CVekBlockedWorkMgr blocked{manager, 5};
    CVekTimedWorker* const worker = new CVekTimedWorker(&poll);  // owned by the list
};

}  // namespace

TEST_F(BlockedWork, CountsTheTimeOutDownOnceAPassAndTracesOnlyWhatItHolds) {
    CVekBlockedWorkMgr empty(manager, 5);
    const DebugLevel level(-1);
    EXPECT_EQ(outputOf([&] { empty.BWMProcessBlockedWork(); }), "");
    EXPECT_EQ(outputOf([&] { empty.BWMAddBlockedWork(new CVekTimedWorker(&poll)); }),
              "Adding blocked work: poll\n");
    EXPECT_EQ(blocked.BWMFirstTryTimeOut(), 5U);
    answer.PRSetTimeOut(1);
    EXPECT_EQ(outputOf([&] { pass(); }), "BWMProcessBlockedWork: processing 1 items\n");
    EXPECT_EQ(answer.PRTimeOut(), 0U);
    EXPECT_EQ(pass(), Names{});
    EXPECT_EQ(answer.PRTimeOut(), std::numeric_limits<unsigned int>::max());
}

TEST_F(BlockedWork, RunsAgainOnceForEachTimeItBlockedOrIsDroppedAtTheFollowingPass) {
    for (const int state : {2, 3}) {
        answer.state = state;
        EXPECT_EQ(pass(), Names{"poll"});
        EXPECT_EQ(worker->RTWStatus(), RTW_STATUS_RERUN);
        EXPECT_EQ(pass(), Names{});
        worker->RTWSetStatus(RTW_STATUS_BLOCKED);
    }
    answer.state = 1;
    EXPECT_EQ(pass(), Names{});
    EXPECT_TRUE(poll.RTWPollIsExecuting());
    pass();
    EXPECT_FALSE(poll.RTWPollIsExecuting());
}

// The response that is asked makes another pass, in which its neighbour would go.
TEST_F(BlockedWork, IsOnlyOnceInAPass) {
    Answer second;
    second.state = 1;
    auto* const next = new CVekTimedWorker(static_cast<CVekTimedWork*>(nullptr));
    next->RTWSetBlockingPoll(&second);
    next->RTWSetStatus(RTW_STATUS_DONE);
    blocked.BWMAddBlockedWork(next);
    int asked = 0;
    answer.onAsked = [&] {
        if (asked++ > 0) return;
        pass();
        blocked.BWMAddBlockedWork(new CVekTimedWorker(&poll));
    };
    pass();
    EXPECT_EQ(asked, 1);
    pass();
    EXPECT_EQ(asked, 2);
}

TEST_F(BlockedWork, ReportsWhatItCannotInterpretAndKeepsTheWorker) {
    ErrorRecorder errors;
    answer.state = 4;
    pass();
    worker->RTWSetStatus(static_cast<EVekTimedWorkerStatus>(7));
    pass();
    EXPECT_EQ(errors.take(), std::vector(2, Report{-220432, "CVekBlockedWorkMgr", 0, ""}));
    worker->RTWSetStatus(RTW_STATUS_BLOCKED);
    worker->RTWSetBlockingPoll(nullptr);
    pass();
    EXPECT_EQ(errors.take(), std::vector(1, Report{-220552, "CVekBlockedWorkMgr", 0, ""}));
    EXPECT_TRUE(poll.RTWPollIsExecuting());
}

TEST_F(BlockedWork, GivesTheResponseOfAThreadOnce) {
    Answer second;
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), nullptr);
    blocked.BWMSetBlockingPollForThread(&answer, 7);
    blocked.BWMSetBlockingPollForThread(&second, 0xFFFFFFFF);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), &answer);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), nullptr);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(0xFFFFFFFF), &second);
    blocked.BWMSetBlockingPollForThread(&second, 7);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), &second);
}

TEST_F(BlockedWork, IsBlockedAgainWhenASuspensionTakesItOutOfTheQueue) {
    CountingPoll asking("asking", 1);
    auto queueing = std::make_unique<CVekTimedWorkMgr>(nullptr, 0, 1000, 0, nullptr, FALSE);
    CVekBlockedWorkMgr other(*queueing, 5);
    queueing->RTWMSetBlockedWorkMgr(&other);
    EXPECT_EQ(queueing->RTWMBlockedWorkMgr(), &other);
    auto* const suspended = new CVekTimedWorker(&asking);
    suspended->RTWSetBlockingPoll(&answer);
    suspended->RTWSetStatus(RTW_STATUS_BLOCKED);
    other.BWMAddBlockedWork(suspended);
    answer.state = 2;
    queueing->onTimer(nullptr);
    EXPECT_EQ(suspended->RTWStatus(), RTW_STATUS_RERUN);
    queueing->RTWMSuspendTimedWork();
    EXPECT_EQ(suspended->RTWStatus(), RTW_STATUS_BLOCKED);
    queueing->RTWMResumeTimedWork();
    queueing->onTimer(nullptr);
    EXPECT_EQ(suspended->RTWStatus(), RTW_STATUS_RERUN);
    queueing.reset();
    EXPECT_EQ(suspended->RTWStatus(), RTW_STATUS_BLOCKED);
    EXPECT_TRUE(asking.RTWPollIsExecuting());
}
