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

// What runs may still register items, so the threads end before the registrations go.
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
