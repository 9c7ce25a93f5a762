// Workers that wait for an answer: counted down, run again, dropped.

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "mom/timed/CVekBlockedWorkMgr.h"
#include "mom/timed/CVekPollResponse.h"
#include "tests/mom/timed/Polls.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ErrorRecorder.h"

using kvx::test::CountingPoll;
using kvx::test::DebugLevel;
using kvx::test::ErrorRecorder;
using kvx::test::eventually;
using kvx::test::outputOf;
using kvx::test::RecordingMgr;
using kvx::test::Report;

namespace {

using Names = std::vector<std::string>;

class Answer : public CVekPollResponse {
  public:
    int PRPollState() override { return state; }
    std::atomic<int> state = 0;
};

// One worker, parked on `answer`.
struct Parked {
    Parked() {
        auto* worker_ = new CVekTimedWorker(&poll);
        worker_->RTWSetBlockingPoll(&answer);
        worker_->RTWSetStatus(RTW_STATUS_BLOCKED);
        worker = worker_;
        blocked.BWMAddBlockedWork(worker_);
    }
    Names pass() {
        blocked.BWMProcessBlockedWork();
        return manager.takeQueued();
    }
    bool isHeld() const { return poll.RTWPollIsExecuting(); }

    CountingPoll poll{"poll", 1};
    Answer answer;
    RecordingMgr manager;
    CVekBlockedWorkMgr blocked{manager, 5};
    CVekTimedWorker* worker;  // owned by the list
};

}  // namespace

TEST(BlockedWork, CountsTheTimeOutDownOnceAPass) {
    Parked parked;
    EXPECT_EQ(parked.blocked.BWMFirstTryTimeOut(), 5U);
    parked.answer.PRSetTimeOut(1);
    EXPECT_EQ(parked.pass(), Names{});
    EXPECT_EQ(parked.answer.PRTimeOut(), 0U);
    EXPECT_EQ(parked.pass(), Names{});
    EXPECT_EQ(parked.answer.PRTimeOut(), std::numeric_limits<unsigned int>::max());
}

TEST(BlockedWork, RunsAgainOnceForEachTimeItBlocked) {
    Parked parked;
    for (const int state : {2, 3}) {
        parked.answer.state = state;
        EXPECT_EQ(parked.pass(), Names{"poll"});
        EXPECT_EQ(parked.worker->RTWStatus(), RTW_STATUS_RERUN);
        EXPECT_EQ(parked.pass(), Names{});
        parked.worker->RTWSetStatus(RTW_STATUS_BLOCKED);
    }
}

TEST(BlockedWork, DropsAWorkerThatGaveUpAtTheFollowingPass) {
    Parked parked;
    parked.answer.state = 1;
    EXPECT_EQ(parked.pass(), Names{});
    EXPECT_TRUE(parked.isHeld());
    parked.pass();
    EXPECT_FALSE(parked.isHeld());
}

TEST(BlockedWork, ReportsWhatItCannotInterpretAndKeepsTheWorker) {
    Parked parked;
    ErrorRecorder errors;
    parked.answer.state = 4;
    parked.pass();
    parked.worker->RTWSetStatus(static_cast<EVekTimedWorkerStatus>(7));
    parked.pass();
    EXPECT_EQ(errors.take(), std::vector(2, Report{-220432, "CVekBlockedWorkMgr", 0, ""}));
    parked.worker->RTWSetStatus(RTW_STATUS_BLOCKED);
    parked.worker->RTWSetBlockingPoll(nullptr);
    parked.pass();
    EXPECT_EQ(errors.take(), std::vector(1, Report{-220552, "CVekBlockedWorkMgr", 0, ""}));
    EXPECT_TRUE(parked.isHeld());
}

TEST(BlockedWork, TracesOnlyWhatItHolds) {
    RecordingMgr manager;
    CVekBlockedWorkMgr blocked(manager, 5);
    const DebugLevel level(-1);
    EXPECT_EQ(outputOf([&] { blocked.BWMProcessBlockedWork(); }), "");
    EXPECT_EQ(outputOf([] { Parked().pass(); }),
              "Adding blocked work: poll\nBWMProcessBlockedWork: processing 1 items\n");
}

TEST(BlockedWork, GivesTheResponseOfAThreadOnce) {
    RecordingMgr manager;
    CVekBlockedWorkMgr blocked(manager, 5);
    Answer first;
    Answer second;
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), nullptr);
    blocked.BWMSetBlockingPollForThread(&first, 7);
    blocked.BWMSetBlockingPollForThread(&second, 0xFFFFFFFF);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), &first);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), nullptr);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(0xFFFFFFFF), &second);
    blocked.BWMSetBlockingPollForThread(&second, 7);
    EXPECT_EQ(blocked.BWMTakeBlockingPollForThread(7), &second);
}

TEST(BlockedWork, IsBlockedAgainWhenASuspensionTakesItOutOfTheQueue) {
    CountingPoll poll("poll", 1);
    Answer answer;
    auto manager = std::make_unique<CVekTimedWorkMgr>(nullptr, 0, 1000, 0, nullptr, FALSE);
    CVekBlockedWorkMgr blocked(*manager, 5);
    manager->RTWMSetBlockedWorkMgr(&blocked);
    EXPECT_EQ(manager->RTWMBlockedWorkMgr(), &blocked);
    auto* worker = new CVekTimedWorker(&poll);
    worker->RTWSetBlockingPoll(&answer);
    worker->RTWSetStatus(RTW_STATUS_BLOCKED);
    blocked.BWMAddBlockedWork(worker);
    answer.state = 2;
    manager->onTimer(nullptr);
    EXPECT_EQ(worker->RTWStatus(), RTW_STATUS_RERUN);
    manager->RTWMSuspendTimedWork();
    EXPECT_EQ(worker->RTWStatus(), RTW_STATUS_BLOCKED);
    manager->RTWMResumeTimedWork();
    manager->onTimer(nullptr);
    EXPECT_EQ(worker->RTWStatus(), RTW_STATUS_RERUN);
    manager.reset();
    EXPECT_EQ(worker->RTWStatus(), RTW_STATUS_BLOCKED);
    EXPECT_TRUE(poll.RTWPollIsExecuting());
}

// A service as it uses all of it: polls that ask, wait for an answer from another thread, and go
// on.
namespace {

class AskingPoll : public CVekTimedWork {
  public:
    AskingPoll(const std::string& name, CVekBlockedWorkMgr*& blocked) : m_blocked(blocked) {
        RTWSetName(new CVekAtom(name.c_str()));
        RTWSetFrequency(1);
    }
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }
    void RTWDoPoll() override {
        if (answer.state == 0) {
            ++asked;
            m_blocked->BWMSetBlockingPollForThread(&answer, CVekThread::RTId());
        } else {
            answer.state = 0;
            ++answered;
        }
    }

    Answer answer;
    std::atomic<int> asked = 0;
    std::atomic<int> answered = 0;

  private:
    CVekBlockedWorkMgr*& m_blocked;
};

CVekBlockedWorkMgr* serviceBlocked = nullptr;

void runAndPark(void* item, void*) {
    auto* worker = static_cast<CVekTimedWorker*>(item);
    const bool isParked = worker->RTWStatus() != RTW_STATUS_NEW;
    worker->RTWDoWork();
    auto* response = serviceBlocked->BWMTakeBlockingPollForThread(CVekThread::RTId());
    if (response != nullptr) {
        worker->RTWSetBlockingPoll(response);
        worker->RTWSetStatus(RTW_STATUS_BLOCKED);
        if (!isParked) serviceBlocked->BWMAddBlockedWork(worker);
    } else if (isParked) {
        worker->RTWSetStatus(RTW_STATUS_DONE);
    } else {
        delete worker;
    }
}

}  // namespace

TEST(BlockedWork, CarriesAServicesPollsThroughManyRounds) {
    constexpr int kRounds = 20;
    std::vector<std::unique_ptr<AskingPoll>> polls;
    for (int i = 0; i < 10; ++i) {
        polls.push_back(std::make_unique<AskingPoll>(std::to_string(i), serviceBlocked));
    }
    auto manager = std::make_unique<CVekTimedWorkMgr>(nullptr, 2, 1000, 4, &runAndPark, FALSE);
    CVekBlockedWorkMgr blocked(*manager, 5);
    serviceBlocked = &blocked;
    manager->RTWMSetBlockedWorkMgr(&blocked);
    for (auto& poll : polls) manager->RTWMAddPoll(poll.get());
    manager->RTWMDistributePolls();
    // Another thread changes another frequency all the while.
    CountingPoll restless("restless", 3);
    std::atomic<bool> isOver = false;
    std::thread changer([&] {
        while (!isOver) {
            manager->RTWMAddPoll(&restless);
            manager->RTWMDistributePolls();
            manager->RTWMDeletePoll(&restless);
            manager->RTWMDistributePolls();
        }
    });
    for (int round = 1; round <= kRounds; ++round) {
        EXPECT_TRUE(eventually([&] {
            manager->onTimer(nullptr);
            return std::all_of(polls.begin(), polls.end(),
                               [&](auto& poll) { return poll->asked >= round; });
        }));
        for (auto& poll : polls) poll->answer.state = 2;
        EXPECT_TRUE(eventually([&] {
            manager->onTimer(nullptr);
            return std::all_of(polls.begin(), polls.end(),
                               [&](auto& poll) { return poll->answered >= round; });
        }));
    }
    isOver = true;
    changer.join();
    manager.reset();
    for (auto& poll : polls) EXPECT_EQ(poll->answered, kRounds);
}
