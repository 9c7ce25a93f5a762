// The registered items are a vector guarded by the pool's work lock. A kick appends the whole
// vector to the pool's queue in one step, so each kick is all or nothing and its runs keep the
// order of registration. What waits in the queue are runs, so taking one leaves the registration
// alone.

#include "foundation/CVekTimedPool.h"

#include <new>

#include "foundation/CVekError.h"
#include "foundation/ErrorCodes.h"

namespace {

class WorkLock {
  public:
    explicit WorkLock(CVekServPool& pool) : pool_(pool) { pool_.RSPWorkLock(); }
    ~WorkLock() { pool_.RSPWorkUnLock(); }
    WorkLock(const WorkLock&) = delete;
    WorkLock& operator=(const WorkLock&) = delete;

  private:
    CVekServPool& pool_;
};

}  // namespace

CVekTimedPool::CVekTimedPool(int threads, void* context) : CVekServPool(threads, context) {}

// A running item may still register others, so the threads end before the registrations are
// destroyed.
CVekTimedPool::~CVekTimedPool() {
    RSPStopThreads();
}

int CVekTimedPool::RSPAddWorkDetail(void* item) {
    if (item == nullptr) return kvx::kInvalidArgument;
    try {
        const WorkLock lock(*this);
        m_registered.push_back(item);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

void* CVekTimedPool::RSPTakeWorkDetail() {
    return CVekServPool::RSPTakeWorkDetail();
}

void CVekTimedPool::RTPKickThreads() {
    if (queueRegistered() != kvx::kOk) CVekError(kvx::kNoMemory, "CVekTimedPool", 0);
}

int CVekTimedPool::queueRegistered() {
    const WorkLock lock(*this);
    return enqueue(m_registered);
}
