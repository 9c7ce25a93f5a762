#include "foundation/CVekTimedPool.h"

#include <mutex>

#include "foundation/ErrorCodes.h"

CVekTimedPool::CVekTimedPool(int threads, void* context) : CVekServPool(threads, context) {}

// What runs may still register items, so the threads end before the registrations go.
CVekTimedPool::~CVekTimedPool() {
    RSPStopThreads();
}

int CVekTimedPool::RSPAddWorkDetail(void* item) {
    if (item == nullptr) return kvx::kInvalidArgument;
    RSPWorkLock();
    m_registered.push_back(item);
    RSPWorkUnLock();
    return kvx::kOk;
}

void* CVekTimedPool::RSPTakeWorkDetail() {
    return CVekServPool::RSPTakeWorkDetail();
}

void CVekTimedPool::RTPKickThreads() {
    RSPWorkLock();
    for (void* item : m_registered) enqueue(item);
    RSPWorkUnLock();
}
