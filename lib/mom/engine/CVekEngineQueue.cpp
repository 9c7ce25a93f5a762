// The send queue: sends that wait for the main thread's next tick.
//
// First in, first out, except items queued at the front. The net's request mutex guards it and is
// held for one insertion or removal only, never together with the net's lock; no operation waits
// for the net's lock, which the main thread holds while it sends.
//
// Rate: in the time of a tick (100 ms) at most a tenth of the send rate is sent, by the tick
// (CVekInitTimedClb.cpp) and by prompt sending together: both count in m_sentInTick. Prompt sending
// posts one drain to the main loop for any number of items.

#include <algorithm>
#include <chrono>
#include <limits>
#include <string_view>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/engine/VekSubjects.h"
#include "mom/transport/EngineOperations.h"

namespace engine = kvx::engine;

namespace {

int itemTimeout(unsigned long milliseconds) {
    return static_cast<int>(std::min<unsigned long>(milliseconds, std::numeric_limits<int>::max()));
}

bool isHeartbeatSubject(const char* subject) {
    return subject != nullptr && std::string_view(subject) == kvx::kHeartbeatSubject;
}

// Deletes the datum, which the queue owns, of a send whose subject could not be prepared.
int refuseQueuing(const char* subject, RvDatum* datum, int line) {
    delete datum;
    if (subject == nullptr) return kvx::kInvalidArgument;
    kvx::report(kvx::kNoMemory, engine::kFile, line);
    return kvx::kNoMemory;
}

// Prompt sending stops above this many bytes queued on the link, which refuses at 64 MiB.
constexpr unsigned long kMostOnLink = 16UL << 20U;
constexpr unsigned long kTicksPerSecond = 1000 / engine::kTick;

}  // namespace

int CVekEngine::RESendPromptly() {
    const int allowed = RRNAllowPosts();
    if (allowed != kvx::kOk) return allowed;
    {
        const CVekAutoMutex guard(m_requestMutex);
        m_sendsPromptly = true;
        m_isDrainPosted = true;
    }
    return RRNPost([this] { sendPromptly(); });  // for items queued already
}

void CVekEngine::sendPromptly() {
    {
        const CVekAutoMutex guard(m_requestMutex);
        m_isDrainPosted = false;
    }
    if (!isTicking()) beginTickByClock();
    unsigned long waitingBytes = 0;
    rv_Pending(m_session->handle(), nullptr, &waitingBytes);
    if (waitingBytes > kMostOnLink) return;
    // A send may end the session or destroy the engine.
    const kvx::NetWatch net = watch();
    const unsigned long share = itemsPerTick();
    while (net.storageStands() && m_sentInTick < share) {
        const std::unique_ptr<CVekSendQueueItem> item(RENextSendItem());
        if (!item) return;
        ++m_sentInTick;
        item->RSQIDeQueueIt();
    }
}

// Without the queue's timer the time of a tick begins with the first send after the last one.
void CVekEngine::beginTickByClock() {
    const auto now = std::chrono::steady_clock::now();
    if (now - m_tickBegin < std::chrono::milliseconds(engine::kTick)) return;
    m_tickBegin = now;
    m_sentInTick = 0;
}

bool CVekEngine::isTicking() const {
    return m_sendTimer && m_sendTimer->callback() != nullptr;
}

unsigned long CVekEngine::itemsPerTick() {
    return REGetMaxSendRate() / kTicksPerSecond;
}

int CVekEngine::REAddToSendQueue(const char* subject, RvDatum* datum,
                                 const RvDataCallback* callback, __boolean domainQualify) {
    return REAddToSendQueue(subject, datum, callback, RNGetLatency(), domainQualify);
}

int CVekEngine::REAddToSendQueue(const char* subject, RvDatum* datum,
                                 const RvDataCallback* callback, unsigned long timeout,
                                 __boolean domainQualify) {
    kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueue(", kvx::textOrNull(subject),
               ",RvDatum,RvDataCallback,ulong,", static_cast<int>(domainQualify), ")\n");
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) return refuseQueuing(subject, datum, engine::QueueSubject);
    return push(new CVekSendQueueItem(prepared.get(), datum, callback, this, itemTimeout(timeout)),
                &CVekStack::RSPush);
}

int CVekEngine::REAddToSendQueueFront(const char* subject, RvDatum* datum,
                                      const RvDataCallback* callback, __boolean domainQualify) {
    if (!isHeartbeatSubject(subject)) {
        kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueueFront(", kvx::textOrNull(subject),
                   ",RvDatum,RvDataCallback,", static_cast<int>(domainQualify), ")\n");
    }
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) return refuseQueuing(subject, datum, engine::QueueFrontSubject);
    return push(
        new CVekSendQueueItem(prepared.get(), datum, callback, this, itemTimeout(RNGetLatency())),
        &CVekStack::RSPushBottom);
}

int CVekEngine::REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback) {
    return REAddToSendQueue(sender, datum, callback, RNGetLatency());
}

int CVekEngine::REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback,
                                 unsigned long timeout) {
    if (sender == nullptr) return refuseQueuing(nullptr, datum, engine::QueueSubject);
    kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueue(", sender->subject(),
               ",RvDatum,RvDataCallback,ulong)\n");
    return push(new CVekSendQueueItem(datum, callback, this, sender, itemTimeout(timeout)),
                &CVekStack::RSPush);
}

int CVekEngine::REAddToSendQueueFront(RvSender* sender, RvDatum* datum,
                                      const RvDataCallback* callback) {
    if (sender == nullptr) return refuseQueuing(nullptr, datum, engine::QueueFrontSubject);
    kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueueFront(", sender->subject(),
               ",RvDatum,RvDataCallback)\n");
    return push(new CVekSendQueueItem(datum, callback, this, sender, itemTimeout(RNGetLatency())),
                &CVekStack::RSPushBottom);
}

int CVekEngine::push(CVekSendQueueItem* item, int (CVekStack::*where)(void*)) {
    std::unique_ptr<CVekSendQueueItem> owned(item);
    {
        const CVekAutoMutex guard(m_requestMutex);
        const int result = (m_sendQueue.get()->*where)(item);
        if (result != kvx::kOk) return result;
        static_cast<void>(owned.release());
        if (!m_sendsPromptly || std::exchange(m_isDrainPosted, true)) return result;
    }
    postDrain();
    return kvx::kOk;
}

void CVekEngine::postDrain() {
    if (RRNPost([this] { sendPromptly(); }) == kvx::kOk) return;
    const CVekAutoMutex guard(m_requestMutex);
    m_isDrainPosted = false;
}

CVekSendQueueItem* CVekEngine::RENextSendItem() {
    {
        const CVekAutoMutex guard(m_requestMutex);
        auto* const item = static_cast<CVekSendQueueItem*>(m_sendQueue->RSPop());
        if (item != nullptr) return item;
    }
    if (RRNReturnCheckThreadId() != kvx::kOk || !m_sendSource) return nullptr;
    return m_sendSource().release();
}

void CVekEngine::RESetSendSource(std::function<std::unique_ptr<CVekSendQueueItem>()> next) {
    m_sendSource = std::move(next);
}

void CVekEngine::REWakeSendSource() {
    {
        const CVekAutoMutex guard(m_requestMutex);
        if (!m_sendsPromptly || std::exchange(m_isDrainPosted, true)) return;
    }
    postDrain();
}

void CVekEngine::REDoAndSend(const std::function<void()>& work) {
    const kvx::NetWatch net = watch();
    bool isMine = false;
    {
        const CVekAutoMutex guard(m_requestMutex);
        isMine = m_sendsPromptly && !std::exchange(m_isDrainPosted, true);
    }
    try {
        work();
    } catch (...) {
        if (isMine && net.storageStands()) postDrain();
        throw;
    }
    if (isMine && net.storageStands()) sendPromptly();
}

int CVekEngine::RESendQueueLength() {
    const CVekAutoMutex guard(m_requestMutex);
    return m_sendQueue->RSLength();
}

void CVekEngine::RESetMaxSendRate(unsigned long rate) {
    const CVekThread::AutoMutex guard(*m_lock);
    m_maxSendRate = rate;
}

unsigned long CVekEngine::REGetMaxSendRate() {
    const CVekThread::AutoMutex guard(*m_lock);
    return m_maxSendRate;
}

RvTimer* CVekEngine::REGetQueueTimer() {
    return m_sendTimer.get();
}

CVekStack* CVekEngine::REGetQueue() {
    return m_sendQueue.get();
}

char* kvx::transport::qualifiedSubject(CVekEngine& engine, const char* subject) {
    return engine.RRNDomainSubj(subject);
}

void kvx::transport::queueSend(CVekEngine& engine, const char* subject, RvDatum* datum,
                               const RvDataCallback* callback, bool front) {
    if (front) {
        engine.REAddToSendQueueFront(subject, datum, callback, FALSE);
    } else {
        engine.REAddToSendQueue(subject, datum, callback, FALSE);
    }
}
