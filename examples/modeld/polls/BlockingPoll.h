#pragma once

#include <atomic>
#include <memory>

#include "mom/mom.h"

namespace modeld {

/// A poll that sends a request and runs again when the answer has come, without holding a thread in
/// between. Copy this file and its source into your own service: they do not depend on modeld.
///
/// One execution: a worker runs the due poll; `ask` sends the request, and the worker is parked.
/// Every tick the blocked-work manager checks the `Answer`. After `arrive` was called, on any
/// thread, the worker runs again and calls `answered`. When the time-out passes first, `gaveUp` is
/// called instead and the worker is deleted; a later answer is ignored. The poll is not due again
/// until then.
///
/// Requires a timed-work manager with `runTimedWorker` as its work function and `blockedWork` as
/// its blocked-work manager.
class BlockingPoll : public CVekTimedWork {
  public:
    /// `blockedWork` must outlive every execution of the poll.
    explicit BlockingPoll(CVekBlockedWorkMgr& blockedWork);

    void RTWDoPoll() final;
    __boolean RTWAddToPool() override;

    CVekBlockedWorkMgr& blockedWork() const { return blockedWork_; }

    /// The answer that the poll waits for. Shared between the poll and the code that answers, since
    /// either may need it last.
    class Answer : public CVekPollResponse {
      public:
        explicit Answer(BlockingPoll& poll) : poll_(poll) {}

        /// Marks the answer as come; its data must be stored before. Any thread.
        void arrive();

        bool hasArrived() const { return state_ == State::Arrived; }
        int PRPollState() override;

      private:
        enum class State { Awaited, Arrived, GivenUp };

        BlockingPoll& poll_;
        std::atomic<State> state_{State::Awaited};
    };

  protected:
    /// Sends the request. `answer->arrive()` is called when the answer has come, maybe before this
    /// returns. Returns false when there is nothing to wait for. On a work thread.
    virtual bool ask(std::shared_ptr<Answer> answer) = 0;

    /// The answer has come. On a work thread.
    virtual void answered() = 0;

    /// The time-out has passed. On the main thread, in a pass of the blocked-work manager, which
    /// must not be called from here.
    virtual void gaveUp() = 0;

  private:
    CVekBlockedWorkMgr& blockedWork_;
    // Used by the running worker only.
    std::shared_ptr<Answer> answer_;
};

/// The work function of a service whose polls may block, for the constructor of the timed-work
/// manager. Runs the worker `item`; parks it when its poll waits for an answer, else ends it. The
/// context is not used. Polls that never block run as usual.
void runTimedWorker(void* item, void* context);

}  // namespace modeld
