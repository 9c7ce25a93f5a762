// Who owns a worker. A new worker belongs to the work function, which deletes it when its poll has
// finished at once. A parked one belongs to the blocked list, from the moment it is added until a
// pass finds it done; handed back to the work pool it is still the list's, and the work function
// only tells the list what came of it. So setting the status is the last thing done to such a
// worker: after it the main thread may have it run elsewhere, or delete it.
//
// How the answer finds the worker. `RTWDoPoll` knows the poll but not the worker, the work function
// knows the worker but not what the poll did. Between them stands the thread: the poll leaves its
// answer for the thread that it runs on, and the work function takes it on the same thread.

#include "examples/modeld/polls/BlockingPoll.h"

#include <utility>

namespace modeld {

namespace {

// What a response says of itself.
constexpr int kWaiting = 0;
constexpr int kGiveUp = 1;
constexpr int kReady = 2;

}  // namespace

BlockingPoll::BlockingPoll(CVekBlockedWorkMgr& blockedWork) : blockedWork_(blockedWork) {}

// A worker of the poll that is parked counts as executing, so there is never a second one.
__boolean BlockingPoll::RTWAddToPool() {
    return RTWPollIsExecuting() ? FALSE : TRUE;
}

void BlockingPoll::RTWDoPoll() {
    if (answer_ && answer_->hasArrived()) {
        answer_.reset();
        answered();
        return;
    }
    answer_ = std::make_shared<Answer>(*this);
    answer_->PRSetTimeOut(blockedWork_.BWMFirstTryTimeOut());
    if (ask(answer_)) {
        blockedWork_.BWMSetBlockingPollForThread(answer_.get(), CVekThread::RTId());
    } else {
        answer_.reset();
    }
}

void BlockingPoll::Answer::arrive() {
    State awaited = State::Awaited;
    state_.compare_exchange_strong(awaited, State::Arrived);
}

// Asked by the main thread at every tick; the manager counts the time-out down between.
int BlockingPoll::Answer::PRPollState() {
    if (state_ == State::Awaited && PRTimeOut() > 0) return kWaiting;
    State awaited = State::Awaited;
    if (!state_.compare_exchange_strong(awaited, State::GivenUp)) return kReady;
    poll_.gaveUp();
    return kGiveUp;
}

void runTimedWorker(void* item, void*) {
    auto* worker = static_cast<CVekTimedWorker*>(item);
    const bool isParked = worker->RTWStatus() == RTW_STATUS_RERUN;
    const auto* poll = dynamic_cast<BlockingPoll*>(worker->GetTimedPoll());
    CVekBlockedWorkMgr* blockedWork = poll != nullptr ? &poll->blockedWork() : nullptr;
    worker->RTWDoWork();
    CVekPollResponse* response = blockedWork != nullptr
                                     ? blockedWork->BWMTakeBlockingPollForThread(CVekThread::RTId())
                                     : nullptr;
    if (response != nullptr) {
        worker->RTWSetBlockingPoll(response);
        worker->RTWSetStatus(RTW_STATUS_BLOCKED);
        if (!isParked) blockedWork->BWMAddBlockedWork(worker);
    } else if (isParked) {
        worker->RTWSetStatus(RTW_STATUS_DONE);
    } else {
        const std::unique_ptr<CVekTimedWorker> finished(worker);
    }
}

}  // namespace modeld
