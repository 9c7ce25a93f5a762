// An engine's identity and its fault-tolerance group.
//
// The copies of one service in one domain and tier join the group of that name, on a session that
// carries nothing else; the group keeps one of them active. Within the library the active flag
// drives only the heartbeat. Ready, leader and consumer are flags that the hosting process keeps
// here for itself.

#include <iostream>
#include <string>
#include <utility>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/net/DaemonAddress.h"
#include "mom/net/VekReport.h"
#include "mom/net/VekTrace.h"
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

// --- Identity --------------------------------------------------------------------------------

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

// --- The group -------------------------------------------------------------------------------

int CVekEngine::REInitSession() {
    const int named = REMakeGroupName();
    if (named != kvx::kOk) {
        kvx::report(named, engine::kFile, engine::InitGroupName);
        return named;
    }
    auto claim = claimLoop(engine::kFile, engine::OpenSession);
    if (!claim) return kvx::kOffMainThread;
    m_groupLoopClaim = std::move(claim);
    leaveGroup();
    auto* const session = openGroupSession();
    m_ftSession = std::make_unique<RvSession>(session);
    m_ftErrorCallback = std::make_unique<CVekRvErrorClb>();
    if (RRNAddErrorService(m_ftSession.get(), m_ftErrorCallback.get()) != kvx::kOk) {
        kvx::warn("Non fatal error: Rendezvous Error Handler failed to initialise\n");
    }
    if (m_serviceType != SERV_UNKNOWN) joinGroup(session);
    return kvx::kOk;
}

/// Gives up the group session of an earlier call. Another member takes over at once, so a member
/// that leaves is primary no longer.
void CVekEngine::leaveGroup() {
    if (std::exchange(m_ftMemberId, nullptr) != nullptr) RESetInActive();
    const std::unique_ptr<RvSession> left = std::move(m_ftSession);
    if (!left || !m_listeners) return;
    const std::unique_ptr<CVekDoubleList> listeners(m_listeners->RTLIterator());
    for (CVekListable* entry = listeners->RDLHead(); entry != nullptr;
         entry = listeners->RDLGetNext(entry)) {
        auto* const listener = static_cast<RvListener*>(static_cast<CVekPointer*>(entry)->RPData());
        if (listener == nullptr || listener->callback() != m_ftErrorCallback.get()) continue;
        if (RRNDereferenceListener(listener) == kvx::kOk) delete listener;
    }
}

/// The engine's own core session, or null.
rv_Session CVekEngine::openGroupSession() {
    CVekRvdCfgParser parser;
    const kvx::DaemonAddress address = kvx::readDaemonAddress(parser);
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
        kvx::writeGuarded(std::cout, "Becoming Primary for tier ", engine->REGetTierNo());
        engine->RESetActive();
    } else if (action == RVFT_DEACTIVATE) {
        kvx::writeGuarded(std::cout, "Becoming Backup for tier ", engine->REGetTierNo());
        engine->RESetInActive();
    }
    kvx::writeGuarded(std::cout, "\n");
}

// --- Flags -----------------------------------------------------------------------------------

void CVekEngine::setActive(__boolean active, EVekHbRunLevel level, int line, const char* text) {
    const CVekThread::AutoMutex guard(*m_lock);
    m_active = active;
    if (!m_heartbeat) return;
    const int result = m_heartbeat->RHCSetLevel(level);
    if (result != kvx::kOk) kvx::report(result, engine::kFile, line, text);
}

void CVekEngine::RESetActive() {
    setActive(TRUE, HB_PRIMARY, engine::SetActive, "CVekEngine::VekSetActive");
}

void CVekEngine::RESetInActive() {
    setActive(FALSE, HB_BACKUP, engine::SetInActive, "CVekEngine::VekSetInActive");
}

__boolean CVekEngine::REIsActive() {
    const CVekThread::AutoMutex guard(*m_lock);
    return m_active;
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
