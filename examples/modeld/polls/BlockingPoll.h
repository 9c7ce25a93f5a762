#pragma once

#include <atomic>
#include <memory>

#include "mom/mom.h"

namespace modeld {

/// A poll that sends a request and runs again when the answer has come, without holding a thread in
/// between. Copy this file and its source into a service of your own: nothing in them is about
/// modeld.
///
/// One execution goes like this. The poll is due and a worker runs it: `ask` sends the request, and
/// the worker is parked. Every tick the blocked-work manager looks at the `Answer`. Once `arrive`
/// has been called, on whatever thread, the worker runs again: `answered`. When the time-out passes
/// first, `gaveUp` is called instead and the worker goes; the answer may still come, and is
/// nobody's then. While all this lasts the poll is not due again.
///
/// For it to work the timed-work manager must have been given `runTimedWorker` as its work function
/// and `blockedWork` as its blocked-work manager.
class BlockingPoll : public CVekTimedWork {
  public:
    /// `blockedWork` must outlive the running of the poll.
    explicit BlockingPoll(CVekBlockedWorkMgr& blockedWork);

    void RTWDoPoll() final;
    __boolean RTWAddToPool() override;

    CVekBlockedWorkMgr& blockedWork() const { return blockedWork_; }

    /// What the poll waits for. Shared between the poll and whoever brings the answer, because
    /// either may be the last to need it.
    class Answer : public CVekPollResponse {
      public:
        explicit Answer(BlockingPoll& poll) : poll_(poll) {}

        /// The answer is there; everything that belongs to it has been stored before. Any thread.
        void arrive();

        bool hasArrived() const { return state_ == State::Arrived; }
        int PRPollState() override;

      private:
        enum class State { Awaited, Arrived, GivenUp };

        BlockingPoll& poll_;
        std::atomic<State> state_{State::Awaited};
    };

  protected:
    /// Sends the request. `answer->arrive()` is called when the answer is there, perhaps before
    /// this returns. False when there is nothing to wait for. On a work thread.
    virtual bool ask(std::shared_ptr<Answer> answer) = 0;

    /// The answer has come. On a work thread.
    virtual void answered() = 0;

    /// The answer has not come in time. On the main thread, in a pass of the blocked-work manager,
    /// which must not be called back from here.
    virtual void gaveUp() = 0;

  private:
    CVekBlockedWorkMgr& blockedWork_;
    // Touched by the one worker that runs; while it is parked, by nobody.
    std::shared_ptr<Answer> answer_;
};

/// The work function of a service whose polls may block, for the constructor of the timed-work
/// manager. Runs the worker `item`; then parks it when its poll left something to wait for, ends it
/// when the poll has finished. The context is not used. Polls that never block run as they always
/// do.
void runTimedWorker(void* item, void* context);

}  // namespace modeld
