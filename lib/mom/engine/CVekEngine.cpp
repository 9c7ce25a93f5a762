// An engine's construction, main loop, heartbeats and destruction.
//
// The engine's send path is in CVekEngineSend.cpp, its send queue in CVekEngineQueue.cpp, its
// identity and group in CVekEngineGroup.cpp.

#include "mom/engine/CVekEngine.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/engine/CVekInitTimedClb.h"
#include "mom/engine/VekSubjects.h"

namespace {

constexpr unsigned long kDefaultSendRate = 150;       // items a second
constexpr unsigned long kFirstHeartbeatDelay = 1500;  // milliseconds

}  // namespace

CVekEngine::CVekEngine(int tierNo, const char* groupBase, const char* domain,
                       __serv_types serviceType)
    : CVekEngine(tierNo, groupBase, domain, serviceType, kvx::DaemonAddress()) {}

CVekEngine::CVekEngine(int tierNo, const char* groupBase, const char* domain,
                       __serv_types serviceType, const kvx::DaemonAddress& address)
    : CVekRvNet(0, domain, address) {
    kvx::Text base = kvx::copyText(groupBase);
    if (groupBase != nullptr && !base) {
        kvx::report(kvx::kNoMemory, kvx::engine::kFile, kvx::engine::CopyGroupBase);
    }
    build(tierNo, std::move(base), serviceType, kvx::engine::CopyingConstructorId,
          kvx::engine::CopyingConstructorSession);
}

CVekEngine::CVekEngine(int tierNo, char* groupBase, char* domain, __serv_types serviceType)
    : CVekRvNet(0, domain) {
    build(tierNo, kvx::Text(groupBase), serviceType, kvx::engine::AdoptingConstructorId,
          kvx::engine::AdoptingConstructorSession);
}

void CVekEngine::build(int tierNo, kvx::Text groupBase, __serv_types serviceType, int idLine,
                       int sessionLine) {
    m_reservedList = std::make_unique<CVekDoubleList>();
    m_groupBase = std::move(groupBase);
    m_maxSendRate = kDefaultSendRate;
    m_serviceType = serviceType;
    const int named = RESetEngineID();
    if (named != kvx::kOk) kvx::report(named, kvx::engine::kFile, idLine);
    m_sendQueue = std::make_unique<CVekStack>(-1);
    m_tierNo = tierNo;
    const int opened = REInitSession();
    if (opened != kvx::kOk) kvx::report(opened, kvx::engine::kFile, sessionLine);
}

CVekEngine::~CVekEngine() {
    kvx::trace(kvx::kTraceCalls, "CVekEngine::~CVekEngine\n");
    while (CVekSendQueueItem* const unsent = RENextSendItem()) delete unsent;
    m_sendTimer.reset();
    m_hbTimer.reset();
    m_hbFirstTimer.reset();
    m_retiredTimers.clear();
    m_sendQueue.reset();
    m_engineId.reset();
    m_groupName.reset();
    m_groupBase.reset();
    m_reservedList.reset();
    m_heartbeat.reset();
    m_retiredHeartbeats.clear();
    m_ftErrorCallback.reset();
    m_ftSession.reset();
}

void CVekEngine::RRNPostInitFns() {
    runPostInitFns();
}

void CVekEngine::REDoIt() {
    CVekInitTimedClb drain(
        static_cast<int>(std::min<unsigned long>(itemsPerTick(), std::numeric_limits<int>::max())));
    int status = kvx::kOk;
    auto previous = std::exchange(
        m_sendTimer,
        std::unique_ptr<RvTimer>(RRNNewTimer(&status, kvx::engine::kTick, rv_TRUE, &drain, this)));
    if (!m_sendTimer) {
        kvx::report(kvx::kInvalidArgument, kvx::engine::kFile, kvx::engine::QueueTimer);
        return;
    }
    RRNDoIt();  // may destroy the engine
    // A live drain timer belongs to an outer call, inside whose loop this call did nothing.
    if (previous && previous->callback() != nullptr) m_sendTimer = std::move(previous);
}

void CVekEngine::REStartHeartBeat(const char* service, const char* domain, CVekEnv* env) {
    static constexpr char kText[] = "CVekEngine::VekStartHeartBeat";
    auto heartbeat = std::make_unique<CVekHeartbeatClb>(service, domain, env);
    {
        const CVekThread::AutoMutex guard(*m_lock);
        if (m_heartbeat) m_retiredHeartbeats.push_back(std::move(m_heartbeat));
        m_heartbeat = std::move(heartbeat);
    }
    if (m_hbFirstTimer) m_retiredTimers.push_back(std::move(m_hbFirstTimer));
    m_hbTimer.reset();
    int status = kvx::kOk;
    m_hbTimer.reset(
        RRNNewTimer(&status, kvx::kHeartbeatInterval, rv_TRUE, m_heartbeat.get(), this));
    if (!m_hbTimer) {
        kvx::report(kvx::kInvalidArgument, kvx::engine::kFile, kvx::engine::HeartbeatTimer, kText);
    }
    m_hbFirstTimer.reset(
        RRNNewTimer(&status, kFirstHeartbeatDelay, rv_FALSE, m_heartbeat.get(), this));
    if (!m_hbFirstTimer) {
        kvx::report(kvx::kInvalidArgument, kvx::engine::kFile, kvx::engine::FirstHeartbeatTimer,
                    kText);
    }
}

void CVekEngine::REStartHeartBeat(const char* service, const char* domain, CVekEnv* env,
                                  const char* subject) {
    REStartHeartBeat(service, domain, env);
    m_heartbeat->RHCSetSubject(subject);
}
