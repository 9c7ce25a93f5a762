#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "foundation/CVekAsymmetricMutex.h"
#include "foundation/CVekHashList.h"
#include "foundation/CVekHashStore.h"
#include "foundation/CVekMutex.h"
#include "foundation/CVekServPool.h"
#include "foundation/CVekStack.h"
#include "foundation/CVekTimedPool.h"
#include "platform/Export.h"
#include "rv/object/RvTimerCallback.h"

class CVekBlockedWorkMgr;
class CVekEngine;
class CVekTimedWork;
class CVekTimedWorkDist;
class CVekTimedWorker;

/// Runs a service's periodic polls.
///
/// A poll of frequency N runs once every N ticks of a repeating bus timer. Polls of one frequency
/// form a distribution, which spreads them over the ticks of their period. The tick, on the main
/// thread, kicks the poll pool; its threads pass the due polls to the work pool, whose threads run
/// them. Adding, deleting and moving polls takes effect at the next `RTWMDistributePolls`, so that
/// a batch of changes costs one redistribution.
///
/// Any thread, except the constructors, the destructor, `onTimer` and `RTWMSetBlockedWorkMgr`,
/// which are for the main thread. Does not own the polls: see `CVekTimedWork` for their lifetime.
///
/// Locks under which code of the service runs, and what it may call there:
///
///     code                                     under the lock of    may call
///     `RTWDoPoll`, function workers            nobody               everything
///     `RTWAddToPool`, `RTWSetPollIsExecuting`  nobody, for repeat   everything
///       and `RTWMAddPollWork(worker)` of a       pollers, direct
///       derived manager                          calls, suspensions
///     the same, for a poll whose turn it is    its distribution     `RTWMAddPollWork`,
///                                                                   `RTWMAddRepeatPoller`
///     `PRPollState`, and the first three, in   the blocked list,    everything; a pass inside
///       a pass of the blocked work               recursive            a pass does nothing
///     an error handler                         any of these         as in the third line
///
/// Any other call there does nothing, reports -220439 and returns it. Code that runs under a lock,
/// or in a tick, must not destroy the manager, nor wait for another thread that calls it.
///
/// Destruction: with a blocked-work manager attached, destroy this manager first; it ends its
/// threads and leaves the parked workers to the list. The other order is safe only when no worker
/// of the list waits or runs in the work pool and no further tick comes. A derived manager stops
/// the threads (`m_PollPool.RSPStopThreads()`, then `m_WorkPool`) in its own destructor.
class KVX_API CVekTimedWorkMgr : public RvTimerCallback {
  public:
    using WorkFunction = void (*)(void* worker, void* context);

    /// Ticks every `tickInterval` milliseconds on the main loop of `engine`, which must outlive
    /// this object; without an engine the caller of `onTimer` ticks. `pollThreads` threads tick the
    /// distributions, `poolSize` threads run workers with `workFunction`, or with
    /// `TimedWorkerThreadFn` when that is null. A `suspended` manager does nothing until it is
    /// resumed.
    CVekTimedWorkMgr(CVekEngine* engine, unsigned int pollThreads, unsigned int tickInterval,
                     unsigned int poolSize, WorkFunction workFunction, __boolean suspended);

    /// 10 poll threads, a tick of 1000 milliseconds, 50 work threads, `TimedWorkerThreadFn`.
    CVekTimedWorkMgr(CVekEngine* engine, __boolean suspended);

    CVekTimedWorkMgr(const CVekTimedWorkMgr&) = delete;
    CVekTimedWorkMgr& operator=(const CVekTimedWorkMgr&) = delete;

    /// Waits for the running polls, discards the queued workers, and deletes the distributions.
    /// Deletes no poll.
    ~CVekTimedWorkMgr() override;

    /// The tick.
    void onTimer(RvTimer* timer) override;

    /// Queues a worker, suspended or not, takes ownership of it, and returns 1; -220552 for null.
    virtual int RTWMAddPollWork(CVekTimedWorker* worker);

    /// Queues one execution of `poll` now, unless the manager is suspended or the poll refuses
    /// (`RTWAddToPool`). Returns 1 either way; -220552 for null.
    int RTWMAddPollWork(CVekTimedWork* poll);

    /// Queues one call of `function(argument)` and returns 1.
    int RTWMAddPollWork(void (*function)(void*), void* argument);

    /// Adds a poll under its frequency. Returns 1, also for a name that exists (the first poll
    /// stays); -220383 for a frequency below 1, -220552 for null. Any other negative code means
    /// that the manager's sets could not be changed; the manager then stays locked permanently.
    int RTWMAddPoll(CVekTimedWork* poll);

    /// Removes a poll. No poll of its frequency runs until the next `RTWMDistributePolls`. Returns
    /// 1, also when there was none; other codes as for `RTWMAddPoll`.
    int RTWMDeletePoll(CVekTimedWork* poll);

    /// Replaces `oldPoll` by `newPoll` of the same name; both must be alive. Of the same frequency,
    /// it takes effect at once, else at the next `RTWMDistributePolls`. Returns 1.
    int RTWMChangePoll(CVekTimedWork* oldPoll, CVekTimedWork* newPoll);

    /// Moves `poll` to another frequency. Returns 1 when it has that frequency already; else as
    /// `RTWMDeletePoll` and `RTWMAddPoll`.
    int RTWMChangePollFrequency(CVekTimedWork* poll, int frequency);

    /// Redistributes the polls of every frequency that changed since the last call. Returns 1.
    int RTWMDistributePolls();

    /// Runs `poll` once, at the next tick. A poll that is to run at every tick adds itself again.
    void RTWMAddRepeatPoller(CVekTimedWork* poll);

    /// Until the resumption ticks do nothing and polls are refused. Workers queued in the work pool
    /// are discarded, except those in the blocked list, which are blocked again. Running workers
    /// finish.
    void RTWMSuspendTimedWork();
    void RTWMResumeTimedWork();

    /// Sets the blocked-work manager that each tick processes first; null detaches. Not owned; see
    /// above for lifetimes.
    void RTWMSetBlockedWorkMgr(CVekBlockedWorkMgr* manager);
    CVekBlockedWorkMgr* RTWMBlockedWorkMgr() const;

  private:
    class RightLock;

    bool mayNotLock() const;
    int addPoll(CVekTimedWork* poll, RightLock& guard);
    int deletePoll(CVekTimedWork* poll, RightLock& guard);
    void start(CVekEngine* engine, unsigned int tickInterval, WorkFunction workFunction);
    CVekTimedWorkDist* distOf(int frequency) const;
    int markForDistribution(CVekTimedWorkDist* dist);
    void queueRepeatPollers();
    void discardQueuedWorkers();

  public:
    CVekBlockedWorkMgr* m_BlockedWorkMgr = nullptr;  // not owned; main thread only

    // The pools have their own locks, and m_repeatLock guards the repeat pollers; m_Lock guards the
    // rest.
    CVekHashList m_Dists;      // by frequency; owns the distributions
    CVekTimedPool m_PollPool;  // its threads tick the distributions
    std::int32_t m_PoolSize;
    CVekServPool m_WorkPool;  // its threads run workers
    CVekAsymmetricMutex m_Lock;
    CVekStack m_RepeatPollers;                     // polls to run once at the next tick
    CVekStack m_DistsToDistribute;                 // distributions whose polls have changed
    std::unique_ptr<CVekHashStore> m_DistsQueued;  // the frequencies of those
    std::atomic<__boolean> m_Suspended;            // also read without the lock

  private:
    CVekMutex m_repeatLock;  // no call is made under it
};

/// Thread function of the poll pool: one tick of the distribution `item`.
KVX_API void TimedPollThreadFn(void* item, void* context);

/// Thread function of the work pool: runs the worker `item` and deletes it.
KVX_API void TimedWorkerThreadFn(void* item, void* context);
