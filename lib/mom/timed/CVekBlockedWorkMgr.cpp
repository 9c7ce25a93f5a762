// A worker in the list has one of four statuses. BLOCKED: every pass polls its response. RERUN: it
// waits or runs in the work pool, and the list ignores it until its code sets another status. DONE:
// the pass deletes it. NEW: its code has not set a status yet. Only a pass removes workers, and it
// holds the list lock throughout, so a worker seen by the pass stays alive during it. The lock is
// recursive, since a polled response may park workers; a pass inside a pass does nothing, since it
// could delete the next worker of the outer one.

#include "mom/timed/CVekBlockedWorkMgr.h"

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"
#include "mom/base/VekTrace.h"
#include "mom/timed/CVekPollResponse.h"
#include "mom/timed/CVekTimedWorkMgr.h"
#include "mom/timed/CVekTimedWorker.h"

namespace {

constexpr const char* kBlockedFile = "CVekBlockedWorkMgr";

// Results of `CVekPollResponse::PRPollState`.
constexpr int kStillWaiting = 0;
constexpr int kGiveUp = 1;
constexpr int kReady = 2;
constexpr int kReadyToo = 3;

}  // namespace

CVekBlockedWorkMgr::CVekBlockedWorkMgr(CVekTimedWorkMgr& manager, unsigned int firstTryTimeOut)
    : m_manager(manager), m_blockingPolls(FALSE), m_firstTryTimeOut(firstTryTimeOut) {}

CVekBlockedWorkMgr::~CVekBlockedWorkMgr() = default;

void CVekBlockedWorkMgr::BWMSetBlockingPollForThread(CVekPollResponse* response,
                                                     unsigned int threadId) {
    const CVekThread::AutoMutex guard(m_slotLock);
    const int key = static_cast<int>(threadId);
    CVekPointer* slot = m_blockingPolls.RTLGet(key);
    if (slot != nullptr) {
        slot->RPSetData(response);
    } else {
        m_blockingPolls.RTLAdd(key, static_cast<void*>(response));
    }
}

CVekPollResponse* CVekBlockedWorkMgr::BWMTakeBlockingPollForThread(unsigned int threadId) {
    const CVekThread::AutoMutex guard(m_slotLock);
    CVekPointer* slot = m_blockingPolls.RTLGet(static_cast<int>(threadId));
    if (slot == nullptr) return nullptr;
    auto* response = static_cast<CVekPollResponse*>(slot->RPData());
    slot->RPSetData(nullptr);
    return response;
}

void CVekBlockedWorkMgr::BWMAddBlockedWork(CVekTimedWorker* worker) {
    if (worker == nullptr) {
        kvx::report(kvx::kInvalidArgument, kBlockedFile, 0);
        return;
    }
    kvx::traceUnlessQuiet("Adding blocked work: ", worker->RTWName(), "\n");
    m_listLock.RTLock();
    const int result = m_blockedWorkers.RDLAddToListEnd(worker);
    m_listLock.RTUnLock();
    if (result != kvx::kOk) kvx::report(result, kBlockedFile, 0);
}

void CVekBlockedWorkMgr::BWMProcessBlockedWork() {
    const CVekThread::AutoMutex guard(m_listLock);
    if (m_inPass) return;
    m_inPass = true;
    const int length = m_blockedWorkers.RDLLength();
    if (length > 0) {
        kvx::traceUnlessQuiet("BWMProcessBlockedWork: processing ", length, " items\n");
    } else {
        kvx::traceUnlessQuiet("");
    }
    CVekListable* element = m_blockedWorkers.RDLHead();
    while (element != nullptr) {
        auto* worker = static_cast<CVekTimedWorker*>(element);
        element = m_blockedWorkers.RDLGetNext(element);
        processWorker(worker);
    }
    m_inPass = false;
}

void CVekBlockedWorkMgr::processWorker(CVekTimedWorker* worker) {
    switch (worker->RTWStatus()) {
        case RTW_STATUS_NEW:
        case RTW_STATUS_RERUN:
            return;
        case RTW_STATUS_BLOCKED:
            if (BWMReexecuteWork(worker)) m_manager.RTWMAddPollWork(worker);
            return;
        case RTW_STATUS_DONE:
            m_blockedWorkers.RDLDeleteListable(worker);
            return;
    }
    kvx::report(kvx::kUnknownState, kBlockedFile, 0);
}

// Whether the worker is to run again.
bool CVekBlockedWorkMgr::BWMReexecuteWork(CVekTimedWorker* worker) const {
    CVekPollResponse* response = worker->RTWBlockingPoll();
    if (response == nullptr) {
        kvx::report(kvx::kInvalidArgument, kBlockedFile, 0);
        return false;
    }
    switch (response->PRPollState()) {
        case kStillWaiting:
            response->PRDecrementTimeOut();
            return false;
        case kGiveUp:
            worker->RTWSetStatus(RTW_STATUS_DONE);
            return false;
        case kReady:
        case kReadyToo:
            worker->RTWSetStatus(RTW_STATUS_RERUN);
            return true;
        default:
            kvx::report(kvx::kUnknownState, kBlockedFile, 0);
            return false;
    }
}

unsigned int CVekBlockedWorkMgr::BWMFirstTryTimeOut() const {
    return m_firstTryTimeOut;
}
