// Ownership of a worker. The work function owns a new worker, and deletes it when its poll has
// finished at once. The blocked list owns a parked one, from its addition until a pass finds it
// done, also while it runs again in the work pool; the work function then only sets its status.
// That must be its last access: after it the main thread may run the worker again, or delete it.
//
// From the answer to the worker. `RTWDoPoll` knows the poll but not the worker, the work function
// the worker but not the poll's answer. Both run on one thread: the poll stores its answer under
// the thread's id, and the work function takes it from there.

#include "examples/modeld/polls/BlockingPoll.h"

#include <utility>

namespace modeld {

namespace {

// Results of `PRPollState`.
constexpr int kWaiting = 0;
constexpr int kGiveUp = 1;
constexpr int kReady = 2;

}  // namespace

BlockingPoll::BlockingPoll(CVekBlockedWorkMgr& blockedWork) : blockedWork_(blockedWork) {}

// A parked worker counts as executing, so there is never a second one.
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

// Called on the main thread at every tick; the manager decrements the time-out.
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
