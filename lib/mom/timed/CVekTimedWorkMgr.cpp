// Ticks and locks. A tick takes the left side of m_Lock to read the suspension, then polls the
// blocked work, kicks the poll pool, whose threads tick the distributions, and queues the repeat
// pollers. A change of the manager's sets takes the right side and, under it, the locks of the
// distributions. A ticking distribution holds its own lock, so that a deleted poll is not asked any
// more, and calls `RTWMAddPollWork`, which takes no lock of the manager: so a tick never waits for
// a change that waits for the tick. A poll that is asked there and changes the manager would
// deadlock: `LockHeld` detects this, and the call is refused. Other code of the service (the repeat
// pollers of a tick, the workers that a suspension discards) is taken out under a lock and run
// without one.
//
// A distribution exists, and ticks, from the first poll of its frequency until the manager is
// destroyed. Each is on m_DistsToDistribute at most once; m_DistsQueued has the frequencies of
// those on it.

#include "mom/timed/CVekTimedWorkMgr.h"

#include <iostream>
#include <utility>
#include <vector>

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"
#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "mom/timed/CVekBlockedWorkMgr.h"
#include "mom/timed/CVekTimedWork.h"
#include "mom/timed/CVekTimedWorkDist.h"
#include "mom/timed/CVekTimedWorker.h"
#include "mom/timed/TimedShared.h"

namespace {

using kvx::timed::nameOf;

constexpr const char* kMgrFile = "CVekTimedWorkMgr";
constexpr const char* kAddPollText = "CVekTimedWorkMgr::RTWMAddPoll";

constexpr unsigned int kDefaultPollThreads = 10;
constexpr unsigned int kDefaultTick = 1000;  // milliseconds
constexpr unsigned int kDefaultPoolSize = 50;
constexpr int kMarkGrowth = 500;

void reportMgr(int code, const char* text) {
    kvx::report(code, kMgrFile, 0, text);
}

CVekTimedWorkDist* distIn(const CVekPointer* entry) {
    return entry != nullptr ? static_cast<CVekTimedWorkDist*>(entry->RPData()) : nullptr;
}

std::unique_ptr<CVekHashStore> newMarks(int poolSize) {
    return std::make_unique<CVekHashStore>(poolSize, FALSE, TRUE, kMarkGrowth);
}

void warnOfFrequency(CVekTimedWork* poll) {
    if (__ZembraLix_Debug_Level == 0) return;
    kvx::warn("Warning: Illegal Frequency ", poll->RTWFrequency(), " defined for ", nameOf(poll),
              " poll not strobed\n");
    kvx::writeGuarded(std::cout, "");
}

}  // namespace

void TimedPollThreadFn(void* item, void*) {
    static_cast<CVekTimedWorkDist*>(item)->RTWDOnTimer();
}

void TimedWorkerThreadFn(void* item, void*) {
    const std::unique_ptr<CVekTimedWorker> worker(static_cast<CVekTimedWorker*>(item));
    worker->RTWDoWork();
}

// The right side of the manager's lock.
class CVekTimedWorkMgr::RightLock {
  public:
    explicit RightLock(CVekTimedWorkMgr& manager) : m_lock(manager.m_Lock), m_held(&manager) {
        m_lock.RAMLockRight();
    }
    ~RightLock() {
        if (!m_kept) m_lock.RAMUnLockRight();
    }
    RightLock(const RightLock&) = delete;
    RightLock& operator=(const RightLock&) = delete;

    // Keeps the lock held permanently: by contract, a manager with inconsistent sets stops.
    int keepHeld(int code) {
        m_kept = true;
        return code;
    }

  private:
    CVekAsymmetricMutex& m_lock;
    const kvx::timed::LockHeld m_held;
    bool m_kept = false;
};

// Whether the caller would deadlock. Reports it once: the error handler may be the caller.
bool CVekTimedWorkMgr::mayNotLock() const {
    if (!kvx::timed::LockHeld::isHeld(this)) return false;
    static thread_local bool reporting = false;
    if (std::exchange(reporting, true)) return true;
    reportMgr(kvx::kNotCompleted, "called under a lock of the manager");
    reporting = false;
    return true;
}

CVekTimedWorkMgr::CVekTimedWorkMgr(CVekEngine* engine, unsigned int pollThreads,
                                   unsigned int tickInterval, unsigned int poolSize,
                                   WorkFunction workFunction, __boolean suspended)
    : m_Dists(static_cast<int>(poolSize), FALSE),
      m_PollPool(static_cast<int>(pollThreads)),
      m_PoolSize(static_cast<std::int32_t>(poolSize)),
      m_WorkPool(static_cast<int>(poolSize), nullptr),
      m_RepeatPollers(-1),
      m_DistsToDistribute(-1),
      m_DistsQueued(newMarks(m_PoolSize)),
      m_Suspended(suspended) {
    start(engine, tickInterval, workFunction);
}

CVekTimedWorkMgr::CVekTimedWorkMgr(CVekEngine* engine, __boolean suspended)
    : CVekTimedWorkMgr(engine, kDefaultPollThreads, kDefaultTick, kDefaultPoolSize, nullptr,
                       suspended) {}

void CVekTimedWorkMgr::start(CVekEngine* engine, unsigned int tickInterval,
                             WorkFunction workFunction) {
    if (engine != nullptr) engine->RRNAddRepeatTimer(static_cast<int>(tickInterval), this);
    m_PollPool.RSPLaunchThreads(&TimedPollThreadFn);
    m_WorkPool.RSPLaunchThreads(workFunction != nullptr ? workFunction : &TimedWorkerThreadFn);
}

CVekTimedWorkMgr::~CVekTimedWorkMgr() {
    // The pools' threads use the members: they are stopped before these are destroyed.
    m_PollPool.RSPStopThreads();
    m_WorkPool.RSPStopThreads();
    discardQueuedWorkers();
    const std::unique_ptr<CVekDoubleList> dists(m_Dists.RHLIterator());
    for (auto* entry = dists->RDLHead(); entry != nullptr; entry = dists->RDLGetNext(entry)) {
        delete distIn(static_cast<const CVekPointer*>(entry));
    }
}

void CVekTimedWorkMgr::onTimer(RvTimer*) {
    m_Lock.RAMLockLeft();
    const bool suspended = m_Suspended.load() == TRUE;
    m_Lock.RAMUnLockLeft();
    if (suspended) return;
    if (m_BlockedWorkMgr != nullptr) m_BlockedWorkMgr->BWMProcessBlockedWork();
    m_PollPool.RTPKickThreads();
    queueRepeatPollers();
}

void CVekTimedWorkMgr::queueRepeatPollers() {
    std::vector<CVekTimedWork*> polls;
    {
        const CVekAutoMutex guard(m_repeatLock);
        while (void* poll = m_RepeatPollers.RSPop()) {
            polls.push_back(static_cast<CVekTimedWork*>(poll));
        }
    }
    for (CVekTimedWork* poll : polls) RTWMAddPollWork(poll);
}

int CVekTimedWorkMgr::RTWMAddPollWork(CVekTimedWorker* worker) {
    return m_WorkPool.RSPAddWorkDetail(worker);
}

int CVekTimedWorkMgr::RTWMAddPollWork(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    if (poll->RTWAddToPool() == TRUE && m_Suspended.load() != TRUE) {
        RTWMAddPollWork(new CVekTimedWorker(poll));
    } else {
        kvx::traceUnlessQuiet("m_PollPool->RSPAddWorkDetail ", nameOf(poll), " failed\n");
    }
    return kvx::kOk;
}

int CVekTimedWorkMgr::RTWMAddPollWork(void (*function)(void*), void* argument) {
    RTWMAddPollWork(new CVekTimedWorker(function, argument));
    return kvx::kOk;
}

CVekTimedWorkDist* CVekTimedWorkMgr::distOf(int frequency) const {
    return distIn(m_Dists.RHLGet(frequency));
}

// Marks `dist` for redistribution, once. Returns 1, or the code of the failed step.
int CVekTimedWorkMgr::markForDistribution(CVekTimedWorkDist* dist) {
    const auto key = static_cast<unsigned long>(dist->RTWDGetFrequency());
    if (m_DistsQueued->RHSRetrieveObject(key) != nullptr) return kvx::kOk;
    m_DistsToDistribute.RSPush(dist);
    const int result = m_DistsQueued->RHSAddObjectAt(key, nullptr);
    // The text is the same for every operation that marks.
    if (result != kvx::kOk) reportMgr(result, kAddPollText);
    return result;
}

int CVekTimedWorkMgr::RTWMAddPoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    if (mayNotLock()) return kvx::kNotCompleted;
    RightLock guard(*this);
    return addPoll(poll, guard);
}

int CVekTimedWorkMgr::addPoll(CVekTimedWork* poll, RightLock& guard) {
    const int frequency = poll->RTWFrequency();
    if (frequency <= 0) {
        warnOfFrequency(poll);
        return kvx::kIllegalFrequency;
    }
    if (CVekTimedWorkDist* dist = distOf(frequency)) {
        dist->RTWDAddPoll(poll);
        const int result = markForDistribution(dist);
        return result == kvx::kOk ? result : guard.keepHeld(result);
    }
    auto dist = std::make_unique<CVekTimedWorkDist>(this, frequency);
    auto entry = std::make_unique<CVekPointer>(dist.get());
    const int result = m_Dists.RHLAdd(frequency, entry.get());
    if (result != kvx::kOk) {
        reportMgr(result, kAddPollText);
        return guard.keepHeld(result);
    }
    static_cast<void>(entry.release());
    markForDistribution(dist.get());
    m_PollPool.RSPAddWorkDetail(dist.get());
    dist.release()->RTWDAddPoll(poll);
    return kvx::kOk;
}

int CVekTimedWorkMgr::RTWMDeletePoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    if (mayNotLock()) return kvx::kNotCompleted;
    RightLock guard(*this);
    return deletePoll(poll, guard);
}

int CVekTimedWorkMgr::deletePoll(CVekTimedWork* poll, RightLock& guard) {
    CVekTimedWorkDist* dist = distOf(poll->RTWFrequency());
    if (dist == nullptr) return kvx::kOk;
    dist->RTWDDeletePoll(poll);
    const int result = markForDistribution(dist);
    return result == kvx::kOk ? result : guard.keepHeld(result);
}

int CVekTimedWorkMgr::RTWMChangePoll(CVekTimedWork* oldPoll, CVekTimedWork* newPoll) {
    if (oldPoll == nullptr || newPoll == nullptr) return kvx::kInvalidArgument;
    if (mayNotLock()) return kvx::kNotCompleted;
    RightLock guard(*this);
    if (oldPoll->RTWFrequency() != newPoll->RTWFrequency()) {
        deletePoll(oldPoll, guard);
        addPoll(newPoll, guard);
        return kvx::kOk;
    }
    if (CVekTimedWorkDist* dist = distOf(newPoll->RTWFrequency())) dist->RTWDChangePoll(newPoll);
    return kvx::kOk;
}

int CVekTimedWorkMgr::RTWMChangePollFrequency(CVekTimedWork* poll, int frequency) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    if (mayNotLock()) return kvx::kNotCompleted;
    RightLock guard(*this);
    if (poll->RTWFrequency() == frequency) return kvx::kOk;
    const int result = deletePoll(poll, guard);
    if (result != kvx::kOk) return result;
    poll->RTWSetFrequency(frequency);
    return addPoll(poll, guard);
}

int CVekTimedWorkMgr::RTWMDistributePolls() {
    if (mayNotLock()) return kvx::kNotCompleted;
    const RightLock guard(*this);
    if (m_DistsToDistribute.RSLength() == 0) return kvx::kOk;
    while (void* dist = m_DistsToDistribute.RSPop()) {
        static_cast<CVekTimedWorkDist*>(dist)->RTWDDistributePolls();
    }
    m_DistsQueued = newMarks(m_PoolSize);
    return kvx::kOk;
}

void CVekTimedWorkMgr::RTWMAddRepeatPoller(CVekTimedWork* poll) {
    if (poll == nullptr) return;
    const CVekAutoMutex guard(m_repeatLock);
    m_RepeatPollers.RSPush(poll);
}

void CVekTimedWorkMgr::RTWMSuspendTimedWork() {
    if (mayNotLock()) return;
    {
        const RightLock guard(*this);
        m_Suspended = TRUE;
    }
    discardQueuedWorkers();
}

void CVekTimedWorkMgr::discardQueuedWorkers() {
    std::vector<std::unique_ptr<CVekTimedWorker>> discarded;
    m_WorkPool.RSPWorkLock();
    while (void* item = m_WorkPool.RSPTakeWorkDetail()) {
        auto* worker = static_cast<CVekTimedWorker*>(item);
        if (worker->RTWStatus() == RTW_STATUS_RERUN) {
            worker->RTWSetStatus(RTW_STATUS_BLOCKED);
        } else {
            discarded.emplace_back(worker);
        }
    }
    m_WorkPool.RSPWorkUnLock();
}

void CVekTimedWorkMgr::RTWMResumeTimedWork() {
    if (mayNotLock()) return;
    const RightLock guard(*this);
    m_Suspended = FALSE;
}

void CVekTimedWorkMgr::RTWMSetBlockedWorkMgr(CVekBlockedWorkMgr* manager) {
    m_BlockedWorkMgr = manager;
}

CVekBlockedWorkMgr* CVekTimedWorkMgr::RTWMBlockedWorkMgr() const {
    return m_BlockedWorkMgr;
}
