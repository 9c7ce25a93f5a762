#include "mom/timed/CVekTimedWorker.h"

#include "foundation/foundation.h"
#include "mom/base/VekTrace.h"
#include "mom/timed/TimedShared.h"

namespace {

// The worker's reports name its manager's file.
constexpr const char* kWorkerFile = "CVekTimedWorkMgr";

}  // namespace

CVekTimedWorker::CVekTimedWorker(CVekTimedWork* poll) : m_poll(poll) {
    markPoll(true);
}

CVekTimedWorker::CVekTimedWorker(void (*function)(void*), void* argument)
    : m_function(function), m_argument(argument) {}

CVekTimedWorker::~CVekTimedWorker() {
    markPoll(false);
}

void CVekTimedWorker::markPoll(bool executing) {
    if (m_poll != nullptr) m_poll->RTWSetPollIsExecuting(executing);
}

CVekListable* CVekTimedWorker::RLTargetDeepCopy(const CVekListable*) {
    kvx::report(kvx::kInternalFailure, kWorkerFile, 0,
                "Implementation error: RLTargetDeepCopy called for CVekTimedWorker");
    return nullptr;
}

void CVekTimedWorker::RTWDoWork() {
    if (m_poll != nullptr) {
        m_poll->RTWDoPoll();
    } else if (m_function != nullptr) {
        m_function(m_argument);
    } else {
        kvx::report(kvx::kInvalidArgument, kWorkerFile, 0);
    }
}

const char* CVekTimedWorker::RTWName() {
    return kvx::timed::nameOf(m_poll);
}

CVekTimedWork* CVekTimedWorker::GetTimedPoll() {
    return m_poll;
}

void CVekTimedWorker::RTWSetBlockingPoll(CVekPollResponse* response) {
    const CVekAutoMutex guard(m_mutex);
    m_blockingPoll = response;
}

CVekPollResponse* CVekTimedWorker::RTWBlockingPoll() const {
    const CVekAutoMutex guard(m_mutex);
    return m_blockingPoll;
}

void CVekTimedWorker::RTWSetStatus(EVekTimedWorkerStatus status) {
    const CVekAutoMutex guard(m_mutex);
    m_status = status;
}

EVekTimedWorkerStatus CVekTimedWorker::RTWStatus() {
    const CVekAutoMutex guard(m_mutex);
    return m_status;
}
