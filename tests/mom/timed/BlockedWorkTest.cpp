// Workers that wait for an answer: counted down, run again, dropped.

#include "mom/timed/CVekBlockedWorkMgr.h"
#include "mom/timed/CVekPollResponse.h"
#include "tests/mom/timed/Polls.h"
#include "tests/support/ErrorRecorder.h"

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
