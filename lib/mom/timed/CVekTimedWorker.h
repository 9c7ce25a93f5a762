#pragma once

#include "foundation/CVekListable.h"
#include "foundation/CVekMutex.h"
#include "platform/Export.h"

class CVekPollResponse;
class CVekTimedWork;

/// The status of a worker in the blocked-work manager.
enum EVekTimedWorkerStatus : int {
    RTW_STATUS_NEW = 0,
    RTW_STATUS_RERUN = 1,    ///< back in the work pool: its answer has come
    RTW_STATUS_BLOCKED = 2,  ///< waits on its blocking poll
    RTW_STATUS_DONE = 3,     ///< the blocked list deletes it at its next pass
};

/// One queued execution of a poll, or of a plain function.
///
/// Marks its poll as executing from construction to destruction. A function worker, and one with a
/// null poll, is named "". The poll must outlive the worker.
class KVX_API CVekTimedWorker : public CVekListable {
  public:
    explicit CVekTimedWorker(CVekTimedWork* poll);
    CVekTimedWorker(void (*function)(void*), void* argument);
    CVekTimedWorker(const CVekTimedWorker&) = delete;
    CVekTimedWorker& operator=(const CVekTimedWorker&) = delete;
    ~CVekTimedWorker() override;

    /// Workers cannot be copied: reports -220440 and returns null.
    CVekListable* RLTargetDeepCopy(const CVekListable* source) override;

    /// Runs the poll, else the function; with neither, reports -220552.
    void RTWDoWork();

    /// The poll's name, owned by the poll.
    const char* RTWName();

    /// Null for a function worker.
    CVekTimedWork* GetTimedPoll();

    /// The response that the worker waits on; not owned. Any thread.
    void RTWSetBlockingPoll(CVekPollResponse* response);
    CVekPollResponse* RTWBlockingPoll() const;

    /// Any thread.
    void RTWSetStatus(EVekTimedWorkerStatus status);
    EVekTimedWorkerStatus RTWStatus();

  private:
    void markPoll(bool executing);

    // Constant after construction.
    CVekTimedWork* m_poll = nullptr;  // not owned
    void (*m_function)(void*) = nullptr;
    void* m_argument = nullptr;

    // Guarded by m_mutex.
    CVekPollResponse* m_blockingPoll = nullptr;  // not owned
    EVekTimedWorkerStatus m_status = RTW_STATUS_NEW;
    mutable CVekMutex m_mutex;
};
