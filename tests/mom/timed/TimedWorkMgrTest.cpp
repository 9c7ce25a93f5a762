// The manager's sets, its refusals, suspension, and workers.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/mom/timed/Polls.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ErrorRecorder.h"

using kvx::test::CountingPoll;
using kvx::test::DebugLevel;
using kvx::test::errorOutputOf;
using kvx::test::ErrorRecorder;
using kvx::test::eventually;
using kvx::test::outputOf;
using kvx::test::RecordingMgr;
using kvx::test::Report;

namespace {

using Names = std::vector<std::string>;

// With threads that tick distributions, but none that work: workers stay in the queue.
struct IdleMgr : CVekTimedWorkMgr {
    IdleMgr() : CVekTimedWorkMgr(nullptr, 1, 1000, 0, nullptr, FALSE) {}
};

}  // namespace

TEST(TimedWorkMgr, RefusesAFrequencyBelowOne) {
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

TEST(TimedWorkMgr, SkipsAPollThatRefusesAndSaysSo) {
    RecordingMgr manager;
    CountingPoll poll("shy", 1);
    poll.accepts = false;
    const DebugLevel level(1);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(manager.RTWMAddPollWork(&poll), 1); }),
              "m_PollPool->RSPAddWorkDetail shy failed\n");
    EXPECT_FALSE(poll.RTWPollIsExecuting());
    EXPECT_TRUE(manager.queued.empty());
}

TEST(TimedWorkMgr, DiscardsWhatWaitsWhenItIsSuspended) {
    CountingPoll poll("poll", 1);
    IdleMgr manager;
    manager.RTWMAddPollWork(&poll);
    EXPECT_TRUE(poll.RTWPollIsExecuting());
    manager.RTWMSuspendTimedWork();
    EXPECT_FALSE(poll.RTWPollIsExecuting());

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
