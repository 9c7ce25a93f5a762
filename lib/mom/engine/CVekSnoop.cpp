#include "mom/engine/CVekSnoop.h"

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekUpdWork.h"
#include "mom/transport/CVekTransport.h"

namespace {
namespace snoopLine {
enum Line : int { AddWork = 138 };
}
}  // namespace

CVekSnoop::CVekSnoop(CVekServPool* pool) {
    if (pool != nullptr) {
        kvx::trace(kvx::kTraceCalls,
                   "CVekSnoop::CVekSnoop: Initializing with a non-NULL CVekServPool\n");
    } else {
        kvx::trace(kvx::kTraceCalls,
                   "CVekSnoop::CVekSnoop: WARNING! Initializing with a NULL CVekServPool\n");
    }
    RSInitialise();
    m_updatePool = pool;
}

CVekSnoop::~CVekSnoop() {
    delete m_snoopTransport;
}

void CVekSnoop::RSInitialise() {
    m_updatePool = nullptr;
    m_snoopTransport = nullptr;
}

void CVekSnoop::onData(const char* subject, RvSender* replySender, const RvDatum& data,
                       RvListener* listener) {
    kvx::trace(kvx::kTraceCalls, "CVekSnoop::onData: Snooped a packet on ",
               kvx::textOrNull(subject), "\n");
    RSProcessData(subject, replySender, data, listener);
}

void CVekSnoop::RSProcessData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    kvx::trace(kvx::kTraceCalls, "CVekSnoop::RSProcessData\n");
    if (m_updatePool == nullptr) {
        kvx::trace(kvx::kTraceCalls, "CVekSnoop::RSProcessData: Updates ServPool is NULL!!!\n");
        return;
    }
    auto* const work = new CVekUpdWork(new RvDatum(data), this);
    kvx::trace(kvx::kTraceCalls, "CVekSnoop::RSProcessData: Adding data to Updates work pool.\n");
    if (m_updatePool->RSPAddWorkDetail(work) != kvx::kOk) {
        // A derived pool may have kept the unit, so it is not deleted.
        kvx::report(kvx::kNotCompleted, "CVekSnoop", snoopLine::AddWork, "CVekSnoop::onData");
    }
}

void CVekSnoop::RSTransport(CVekEngine* engine) {
    if (engine != nullptr && m_snoopTransport == nullptr) {
        m_snoopTransport = new CVekTransport(engine);
    }
}

CVekTransport* CVekSnoop::RSTransport() {
    return m_snoopTransport;
}
