// The send queue: sends that wait for the main thread's next tick.
//
// First in, first out, but for what is put in front. The net's request mutex guards it and is held
// for one insertion or removal only; no operation holds it together with the net's lock, and none
// waits for the net's lock, which the main thread holds while it sends.

#include <algorithm>
#include <limits>
#include <string_view>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/engine/VekSubjects.h"
#include "mom/net/VekReport.h"
#include "mom/net/VekTrace.h"

namespace engine = kvx::engine;

namespace {

int itemTimeout(unsigned long milliseconds) {
    return static_cast<int>(std::min<unsigned long>(milliseconds, std::numeric_limits<int>::max()));
}

bool isHeartbeatSubject(const char* subject) {
    return subject != nullptr && std::string_view(subject) == kvx::kHeartbeatSubject;
}

// Gives up a send whose subject could not be prepared; the queue owned its datum already.
int refuseQueuing(const char* subject, RvDatum* datum, int line) {
    delete datum;
    if (subject == nullptr) return kvx::kInvalidArgument;
    kvx::report(kvx::kNoMemory, engine::kFile, line);
    return kvx::kNoMemory;
}

}  // namespace

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
    return pushBack(
        new CVekSendQueueItem(prepared.get(), datum, callback, this, itemTimeout(timeout)));
}

int CVekEngine::REAddToSendQueueFront(const char* subject, RvDatum* datum,
                                      const RvDataCallback* callback, __boolean domainQualify) {
    if (!isHeartbeatSubject(subject)) {
        kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueueFront(", kvx::textOrNull(subject),
                   ",RvDatum,RvDataCallback,", static_cast<int>(domainQualify), ")\n");
    }
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) return refuseQueuing(subject, datum, engine::QueueFrontSubject);
    return pushFront(
        new CVekSendQueueItem(prepared.get(), datum, callback, this, itemTimeout(RNGetLatency())));
}

int CVekEngine::REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback) {
    return REAddToSendQueue(sender, datum, callback, RNGetLatency());
}

int CVekEngine::REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback,
                                 unsigned long timeout) {
    if (sender == nullptr) return refuseQueuing(nullptr, datum, engine::QueueSubject);
    kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueue(", sender->subject(),
               ",RvDatum,RvDataCallback,ulong)\n");
    return pushBack(new CVekSendQueueItem(datum, callback, this, sender, itemTimeout(timeout)));
}

int CVekEngine::REAddToSendQueueFront(RvSender* sender, RvDatum* datum,
                                      const RvDataCallback* callback) {
    if (sender == nullptr) return refuseQueuing(nullptr, datum, engine::QueueFrontSubject);
    kvx::trace(kvx::kTraceCalls, "CVekEngine::REAddToSendQueueFront(", sender->subject(),
               ",RvDatum,RvDataCallback)\n");
    return pushFront(
        new CVekSendQueueItem(datum, callback, this, sender, itemTimeout(RNGetLatency())));
}

int CVekEngine::pushBack(CVekSendQueueItem* item) {
    std::unique_ptr<CVekSendQueueItem> owned(item);
    const CVekAutoMutex guard(m_requestMutex);
    const int result = m_sendQueue->RSPush(item);
    if (result == kvx::kOk) static_cast<void>(owned.release());
    return result;
}

int CVekEngine::pushFront(CVekSendQueueItem* item) {
    std::unique_ptr<CVekSendQueueItem> owned(item);
    const CVekAutoMutex guard(m_requestMutex);
    const int result = m_sendQueue->RSPushBottom(item);
    if (result == kvx::kOk) static_cast<void>(owned.release());
    return result;
}

CVekSendQueueItem* CVekEngine::RENextSendItem() {
    const CVekAutoMutex guard(m_requestMutex);
    return static_cast<CVekSendQueueItem*>(m_sendQueue->RSPop());
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
