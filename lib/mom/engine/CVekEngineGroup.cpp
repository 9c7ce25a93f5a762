// An engine's identity and its fault-tolerance group.
//
// The engines of one service in one domain and tier join the group of that name, on a session used
// for nothing else; the group keeps one of them active. Within the library the active flag drives
// only the heartbeat and the role callback. Ready, leader and consumer are flags for the hosting
// process only.

#include <iostream>
#include <string>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/config/ReadConfiguration.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "platform/Socket.h"

namespace engine = kvx::engine;

namespace {

constexpr unsigned kGroupWeight = 50;
constexpr unsigned kActiveGoal = 1;
constexpr unsigned long kGroupHeartbeat = 1500;   // milliseconds
constexpr unsigned long kGroupPreparation = 0;    // milliseconds
constexpr unsigned long kGroupActivation = 4800;  // milliseconds

// "name[pid] ", or nothing when either is unknown.
std::string processPrefix() {
    const unsigned long pid = CVekProcess::Instance().GetPID();
    const kvx::Text name(VekGetBinaryName(pid));
    if (!name || pid == 0) return {};
    return std::string(name.get()) + "[" + std::to_string(pid) + "] ";
}

}  // namespace

int CVekEngine::RESetEngineID() {
    const auto host = kvx::platform::localHostName();
    if (!host) return kvx::kNoHostName;
    CVekString identity(host->substr(0, host->find('.')).c_str());
    identity.RSStrCat(':');
    identity.RSStrCat(static_cast<long long>(CVekProcess::Instance().GetPID()));
    m_engineId.reset(identity.RSTakeString());
    return kvx::kOk;
}

char* CVekEngine::REGetEngineID() {
    return m_engineId.get();
}

int CVekEngine::REMakeGroupName() {
    if (!m_groupBase) {
        kvx::report(kvx::kInvalidArgument, engine::kFile, engine::GroupName);
        return kvx::kInvalidArgument;
    }
    m_groupName.reset();
    CVekString name(m_groupBase.get());
    name.RSStrCat('.');
    if (m_domain) {
        name.RSStrCat(m_domain.get());
        name.RSStrCat('.');
    }
    name.RSStrCat(m_tierNo);
    m_groupName.reset(name.RSTakeString());
    return kvx::kOk;
}

int CVekEngine::REInitSession() {
    const int named = REMakeGroupName();
    if (named != kvx::kOk) {
        kvx::report(named, engine::kFile, engine::InitGroupName);
        return named;
    }
    auto claim = claimLoop(engine::kFile, engine::OpenSession);
    if (!claim) return kvx::kOffMainThread;
    m_groupLoopClaim = std::move(claim);
    const kvx::NetWatch watch = this->watch();
    leaveGroup();  // closes the session of before, which may run user code
    if (!watch.storageStands()) return kvx::kNoSession;
    auto* const session = openGroupSession();
    m_ftSession = std::make_unique<RvSession>(session);
    m_ftErrorCallback = std::make_unique<CVekRvErrorClb>();
    if (RRNAddErrorService(m_ftSession.get(), m_ftErrorCallback.get()) != kvx::kOk) {
        kvx::warn("Non fatal error: Rendezvous Error Handler failed to initialise\n");
    }
    if (m_serviceType != SERV_UNKNOWN) joinGroup(session);
    tellRole();
    return kvx::kOk;
}

int CVekEngine::RELeaveGroup() {
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) return thread;
    // Destroyed last: closing the session may run user code.
    const std::shared_ptr<const void> claim = std::move(m_groupLoopClaim);
    const LeftGroup left = leaveGroup();
    tellRole();
    return kvx::kOk;
}

/// Releases what belongs to the group for the caller to destroy, and makes the engine backup:
/// another member takes over.
CVekEngine::LeftGroup CVekEngine::leaveGroup() {
    LeftGroup left;
    if (std::exchange(m_ftMemberId, nullptr) != nullptr) setActive(FALSE);
    left.session = std::move(m_ftSession);
    left.callback = std::move(m_ftErrorCallback);
    const CVekThread::AutoMutex guard(*m_lock);
    if (!left.callback || !m_listeners) return left;
    const std::unique_ptr<CVekDoubleList> listeners(m_listeners->RTLIterator());
    for (CVekListable* entry = listeners->RDLHead(); entry != nullptr;
         entry = listeners->RDLGetNext(entry)) {
        auto* const listener = static_cast<RvListener*>(static_cast<CVekPointer*>(entry)->RPData());
        if (listener == nullptr || listener->callback() != left.callback.get()) continue;
        if (RRNDereferenceListener(listener) == kvx::kOk) left.listeners.emplace_back(listener);
    }
    return left;
}

/// The engine's own core session, or null.
rv_Session CVekEngine::openGroupSession() {
    CVekRvdCfgParser parser;
    const kvx::SessionAddress address = kvx::readConfiguration(parser, m_givenAddress);
    kvx::trace(kvx::kTraceCalls, "Initializing RV session.\n");
    rv_Session session = nullptr;
    const int code = rv_Open(&session, address.service, address.network, address.daemon);
    if (code != 0) {
        kvx::warn("Rendezvous failed to make session: ", rv_ErrorText(code), "\n");
        kvx::report(kvx::kInvalidArgument, engine::kFile, engine::OpenSession, "Forced Exit");
    }
    return session;
}

void CVekEngine::joinGroup(rv_Session session) {
    const int code =
        rvft_Join(session, &m_ftMemberId, m_groupName.get(), kGroupWeight, kActiveGoal,
                  kGroupHeartbeat, kGroupPreparation, kGroupActivation, VekGetActivates, this);
    if (code != 0) {
        kvx::warn("Failed to join ft group : ", rvft_ErrorText(session, code), "\n");
    }
}

void VekGetActivates(rv_Session, const char*, int action, void* closure) {
    auto* const engine = static_cast<CVekEngine*>(closure);
    kvx::trace(kvx::kTraceCalls, "Entering VekGetActivates (callback) with action", action, "\n");
    kvx::writeGuarded(std::cout, processPrefix());
    if (action == RVFT_ACTIVATE) {
        kvx::writeGuarded(std::cout, "Becoming Primary for tier ", engine->REGetTierNo(), "\n");
        engine->RESetActive();  // may end with the engine's destruction
    } else if (action == RVFT_DEACTIVATE) {
        kvx::writeGuarded(std::cout, "Becoming Backup for tier ", engine->REGetTierNo(), "\n");
        engine->RESetInActive();
    } else {
        kvx::writeGuarded(std::cout, "\n");
    }
}

void CVekEngine::setActive(__boolean active) {
    const CVekThread::AutoMutex guard(*m_lock);
    m_active = active;
    if (!m_heartbeat) return;
    const int result = m_heartbeat->RHCSetLevel(active == TRUE ? HB_PRIMARY : HB_BACKUP);
    if (result == kvx::kOk) return;
    if (active == TRUE) {
        kvx::report(result, engine::kFile, engine::SetActive, "CVekEngine::VekSetActive");
    } else {
        kvx::report(result, engine::kFile, engine::SetInActive, "CVekEngine::VekSetInActive");
    }
}

void CVekEngine::RESetActive() {
    setActive(TRUE);
    if (RRNReturnCheckThreadId() == kvx::kOk) tellRole();
}

void CVekEngine::RESetInActive() {
    setActive(FALSE);
    if (RRNReturnCheckThreadId() == kvx::kOk) tellRole();
}

void CVekEngine::RESetRoleCallback(std::function<void(bool active)> changed) {
    m_roleChanged = std::move(changed);
    m_toldActive = REIsActive() == TRUE;
}

/// Calls the role callback if the role differs from that of its last call. May destroy the engine.
void CVekEngine::tellRole() {
    const bool active = REIsActive() == TRUE;
    if (std::exchange(m_toldActive, active) == active) return;
    if (const auto changed = m_roleChanged) changed(active);
}

__boolean CVekEngine::REIsActive() {
    const CVekThread::AutoMutex guard(*m_lock);
    return m_active;
}

__boolean CVekEngine::REIsFresh() {
    return m_ftMemberId == nullptr || rvft_IsFresh(m_ftMemberId) != 0 ? TRUE : FALSE;
}

int CVekEngine::REGetTierNo() {
    return m_tierNo;
}
void CVekEngine::RESetTierNo(int tierNo) {
    m_tierNo = tierNo;
}
__boolean CVekEngine::REIsReady() {
    return m_ready;
}
void CVekEngine::REReady(__boolean ready) {
    m_ready = ready;
}
__boolean CVekEngine::REIsLeader() {
    return m_leader;
}
void CVekEngine::RESetHighestTier(__boolean leader) {
    m_leader = leader;
}
__boolean CVekEngine::REIsConsumer() {
    return m_consumer;
}
void CVekEngine::RESetConsumer(__boolean consumer) {
    m_consumer = consumer;
}
