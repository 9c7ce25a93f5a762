#pragma once

#include <cstdint>

#include "foundation/CVekDoubleList.h"
#include "foundation/CVekThread.h"
#include "foundation/CVekTreeList.h"
#include "platform/Export.h"

class CVekPollResponse;
class CVekTimedWorkMgr;
class CVekTimedWorker;

/// Keeps workers that wait for an answer, and has each run again when its answer has come.
///
/// A poll that must wait leaves its response for its thread (`BWMSetBlockingPollForThread`) and
/// returns. The work function that the service gave to the timed-work manager then takes the
/// response, sets it on the worker, sets status `RTW_STATUS_BLOCKED` and parks the worker
/// (`BWMAddBlockedWork`). From then on the list owns the worker: it must not be deleted elsewhere,
/// and a poll that has finished says so with `RTW_STATUS_DONE`.
///
/// `BWMProcessBlockedWork` is called by the manager's tick on the main thread; everything else may
/// be called from any thread. The list lock is held for a whole pass; `CVekTimedWorkMgr` says what
/// runs under it and what that may call. A pass must not destroy this object.
///
/// The timed-work manager goes first, and this object, which deletes the workers it still holds,
/// after it.
class KVX_API CVekBlockedWorkMgr {
  public:
    /// `manager` runs what is ready and must outlive the ticking. `firstTryTimeOut` is in ticks.
    CVekBlockedWorkMgr(CVekTimedWorkMgr& manager, unsigned int firstTryTimeOut);
    CVekBlockedWorkMgr(const CVekBlockedWorkMgr&) = delete;
    CVekBlockedWorkMgr& operator=(const CVekBlockedWorkMgr&) = delete;
    ~CVekBlockedWorkMgr();

    /// Leaves `response`, which stays the caller's, for the thread of that identifier.
    void BWMSetBlockingPollForThread(CVekPollResponse* response, unsigned int threadId);

    /// Takes what was left for the thread; null when there is nothing (any more).
    CVekPollResponse* BWMTakeBlockingPollForThread(unsigned int threadId);

    /// Parks `worker` and takes it over; -220552 is reported for null and for one parked already.
    void BWMAddBlockedWork(CVekTimedWorker* worker);

    /// Asks the response of every blocked worker, and drops the workers that are done. Does nothing
    /// inside a pass.
    void BWMProcessBlockedWork();

    /// The time-out, in ticks, for a response at its first try.
    unsigned int BWMFirstTryTimeOut() const;

  private:
    bool BWMReexecuteWork(CVekTimedWorker* worker) const;
    void processWorker(CVekTimedWorker* worker);

    CVekTimedWorkMgr& m_manager;
    CVekTreeList m_blockingPolls;  // by thread; guarded by m_slotLock
    CVekThread m_slotLock;
    CVekDoubleList m_blockedWorkers;  // owned; guarded by m_listLock
    CVekThread m_listLock;
    bool m_inPass = false;            // guarded by m_listLock
    std::uint32_t m_firstTryTimeOut;  // ticks
};
