#pragma once

#include <cstdint>

#include "foundation/CVekDoubleList.h"
#include "foundation/CVekThread.h"
#include "foundation/CVekTreeList.h"
#include "platform/Export.h"

class CVekPollResponse;
class CVekTimedWorkMgr;
class CVekTimedWorker;

/// Keeps workers that wait for an answer, and runs each again when its answer has come.
///
/// A poll that must wait stores its response under its thread (`BWMSetBlockingPollForThread`) and
/// returns. The service's work function of the timed-work manager then takes the response, sets it
/// on the worker, sets status `RTW_STATUS_BLOCKED` and parks the worker (`BWMAddBlockedWork`). From
/// then on the list owns the worker, which must not be deleted elsewhere; a finished poll sets
/// `RTW_STATUS_DONE`.
///
/// `BWMProcessBlockedWork` is called by the manager's tick on the main thread; everything else is
/// for any thread. The list lock is held for a whole pass; see `CVekTimedWorkMgr` for what runs
/// under it. A pass must not destroy this object.
///
/// Destroy the timed-work manager first, then this object, which deletes its workers.
class KVX_API CVekBlockedWorkMgr {
  public:
    /// `manager` runs the ready workers and must outlive all passes. `firstTryTimeOut` is in ticks.
    CVekBlockedWorkMgr(CVekTimedWorkMgr& manager, unsigned int firstTryTimeOut);
    CVekBlockedWorkMgr(const CVekBlockedWorkMgr&) = delete;
    CVekBlockedWorkMgr& operator=(const CVekBlockedWorkMgr&) = delete;
    ~CVekBlockedWorkMgr();

    /// Stores `response`, which the caller owns, under a thread id.
    void BWMSetBlockingPollForThread(CVekPollResponse* response, unsigned int threadId);

    /// Removes and returns the response of the thread; null when there is none.
    CVekPollResponse* BWMTakeBlockingPollForThread(unsigned int threadId);

    /// Parks `worker` and takes ownership; reports -220552 for null and for one parked already.
    void BWMAddBlockedWork(CVekTimedWorker* worker);

    /// Polls the response of every blocked worker, and deletes the workers that are done. Does
    /// nothing inside a pass.
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
