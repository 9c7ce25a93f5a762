// Each tick brings the level in line with the engine, sends the record ahead of the queue and then,
// if the engine is primary, sets the record's type to 1. So the first beat after an activation
// still has type 0, and all later ones 1. `m_level` only caches the engine's role for this order.

#include "mom/engine/CVekHeartbeatClb.h"

#include <atomic>
#include <ctime>
#include <memory>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/VekSubjects.h"
#include "mom/transport/CVekTransport.h"

namespace {

constexpr char kHeartbeatFile[] = "CVekHeartbeatClb";

namespace heartbeatLine {
enum Line : int {
    CopyDefaultSubject = 142,
    Service = 221,
    Domain = 230,
    Host = 239,
    Pid = 248,
    Type = 257,
    CopySubject = 275,
    AddRecord = 331,
    SetDestination = 337,
    MakePackets = 349,
    SendAll = 358,
    SetType = 381,
};
}

void reportStep(int result, int line, const char* text) {
    if (result != kvx::kOk) kvx::report(result, kHeartbeatFile, line, text);
}

CVekAtom* hostAtom(const CVekEnv* env) {
    return new CVekAtom(kvx::copyText((env != nullptr ? *env : CVekEnv()).RELocalHost()).release());
}

}  // namespace

CVekHeartbeatClb::CVekHeartbeatClb(const char* service, const char* domain, CVekEnv* env)
    : m_pid(new CVekAtom(static_cast<long long>(CVekProcess::Instance().GetPID()))),
      m_host(hostAtom(env)),
      m_domainAtom(new CVekAtom(domain)),
      m_service(new CVekAtom(service)),
      m_interval(kvx::kHeartbeatInterval),
      m_type(new CVekAtom(0)) {
    kvx::trace(kvx::kTraceCalls, "CVekHeartbeatClb::CVekHeartbeatClb(", kvx::textOrNull(service),
               ", ", kvx::textOrNull(domain), ")\n");
    RHCBuildRecord();
    m_subject = kvx::copyText(kvx::kHeartbeatSubject).release();
    if (m_subject == nullptr) {
        kvx::report(kvx::kNoMemory, kHeartbeatFile, heartbeatLine::CopyDefaultSubject);
    }
}

CVekHeartbeatClb::~CVekHeartbeatClb() {
    delete m_record;
    delete m_transport;
    std::free(m_subject);
}

void CVekHeartbeatClb::RHCBuildRecord() {
    delete m_record;
    m_record = new CVekBaseRecord;
    addField("service", m_service, heartbeatLine::Service);
    addField("domain", m_domainAtom, heartbeatLine::Domain);
    addField("host", m_host, heartbeatLine::Host);
    addField("pid", m_pid, heartbeatLine::Pid);
    addField("type", m_type, heartbeatLine::Type);
}

void CVekHeartbeatClb::addField(const char* name, const CVekAtom* value, int line) const {
    reportStep(m_record->RRAddOrSetValue(name, value), line, name);
}

int CVekHeartbeatClb::RHCSetLevel(EVekHbRunLevel level) {
    std::atomic_ref(m_level).store(level);
    return kvx::kOk;
}

void CVekHeartbeatClb::RHCSetSubject(const char* subject) {
    char* const copy = kvx::copyText(subject).release();  // `subject` may be m_subject
    std::free(m_subject);
    m_subject = copy;
    if (subject != nullptr && m_subject == nullptr) {
        kvx::report(kvx::kNoMemory, kHeartbeatFile, heartbeatLine::CopySubject);
    }
}

void CVekHeartbeatClb::onTimer(RvTimer* timer) {
    if (timer == nullptr) {
        kvx::trace(kvx::kTraceCalls, "CVekHeartbeatClb::onTimer(): invoker obj is NULL!\n");
        return;
    }
    auto* const engine = static_cast<CVekEngine*>(timer->closure());
    if (engine == nullptr) {
        kvx::trace(kvx::kTraceCalls, "CVekHeartbeatClb::onTimer(): CVekEngine obj is NULL!\n");
        return;
    }
    kvx::trace(kvx::kTraceCalls, "time: ", std::time(nullptr), ": ",
               kvx::textOrNull(engine->REGetEngineID()), " -> CVekHeartbeatClb::onTimer()\n");
    if (m_transport == nullptr) m_transport = new CVekTransport(engine);
    followEngine(engine->REIsActive() == TRUE);
    sendRecord();
    announcePrimary();
    delete m_transport;
    m_transport = nullptr;
}

void CVekHeartbeatClb::followEngine(bool active) {
    std::atomic_ref(m_level).store(active ? HB_PRIMARY : HB_BACKUP);
}

void CVekHeartbeatClb::sendRecord() const {
    m_transport->RTPurge();
    reportStep(m_transport->RTAddRecord(m_record), heartbeatLine::AddRecord, nullptr);
    reportStep(m_transport->RTSetDestinationOnSubject(m_subject), heartbeatLine::SetDestination,
               "SetDestination");
    reportStep(m_transport->RTCreatePackets(VEK_TRANS_V0, true), heartbeatLine::MakePackets,
               "MakePackets");
    reportStep(m_transport->RTSendHB(), heartbeatLine::SendAll, "SendAll");
}

/// Sets the type to 1, permanently, after the first beat sent while primary.
void CVekHeartbeatClb::announcePrimary() {
    if (m_type->RAInt() != 0 || std::atomic_ref(m_level).load() != HB_PRIMARY) return;
    m_type->RASet(1);
    addField("type", m_type, heartbeatLine::SetType);
}
