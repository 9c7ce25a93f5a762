// The send queue: sends that wait for the main thread's next tick.
//
// First in, first out, except items queued at the front. The net's request mutex guards it and is
// held for one insertion or removal only, never together with the net's lock; no operation waits
// for the net's lock, which the main thread holds while it sends.
//
// Rate: in the time of a tick (100 ms) at most a tenth of the send rate is sent, by the tick
// (CVekInitTimedClb.cpp) and by prompt sending together: both count in m_sentInTick. Prompt sending
// wakes the main loop with a byte through a socket pair. One byte is enough for any number of
// items: it is read before the queue.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <limits>
#include <string_view>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/engine/VekSubjects.h"
#include "mom/transport/EngineOperations.h"
#include "platform/Socket.h"

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

/// Sends queued items when woken, within the share of one tick.
class CVekEngine::PromptSender : public RvIOCallback {
  public:
    using Sockets = std::pair<kvx::platform::Socket, kvx::platform::Socket>;

    PromptSender(CVekEngine& engine, Sockets sockets)
        : m_engine(engine), m_sockets(std::move(sockets)) {}
    ~PromptSender() override {
        if (m_isWatching) m_engine.RRNRemoveIO(handle());
    }
    PromptSender(const PromptSender&) = delete;
    PromptSender& operator=(const PromptSender&) = delete;

    int start() {
        const int added = m_engine.RRNAddIOHandle(handle(), TRUE, FALSE, FALSE, this);
        m_isWatching = added == kvx::kOk;
        return added;
    }

    /// Any thread.
    void wake() {
        if (m_isAwake.exchange(true)) return;
        constexpr std::array<std::byte, 1> kByte{};
        kvx::platform::sendSome(m_sockets.second.get(), kByte);
    }

    void onIO(RvIO*) override {
        std::array<std::byte, 8> taken{};
        kvx::platform::receiveSome(m_sockets.first.get(), taken);
        m_isAwake = false;
        if (!m_engine.isTicking()) beginTickByClock();
        unsigned long waitingBytes = 0;
        rv_Pending(m_engine.m_session->handle(), nullptr, &waitingBytes);
        if (waitingBytes > kMostOnLink) return;
        // A send may end the session or destroy the engine, and this object with it.
        const kvx::NetWatch watch = m_engine.watch();
        const unsigned long share = m_engine.itemsPerTick();
        while (watch.storageStands() && m_engine.m_sentInTick < share) {
            const std::unique_ptr<CVekSendQueueItem> item(m_engine.RENextSendItem());
            if (!item) return;
            ++m_engine.m_sentInTick;
            item->RSQIDeQueueIt();
        }
    }

  private:
    using Clock = std::chrono::steady_clock;

    // Without the queue's timer the time of a tick begins with the first send after the last one.
    void beginTickByClock() {
        const auto now = Clock::now();
        if (now - m_tickBegin < std::chrono::milliseconds(engine::kTick)) return;
        m_tickBegin = now;
        m_engine.m_sentInTick = 0;
    }

    unsigned int handle() const { return static_cast<unsigned int>(m_sockets.first.get()); }

    CVekEngine& m_engine;
    const Sockets m_sockets;  // read by the main loop, written by any thread
    std::atomic<bool> m_isAwake{false};

    // Main thread only.
    bool m_isWatching = false;
    Clock::time_point m_tickBegin;
};

int CVekEngine::RESendPromptly() {
    int error = 0;
    auto sockets = kvx::platform::createSocketPair(error);
    if (error != 0) return kvx::kInternalFailure;
    auto sender = std::make_shared<PromptSender>(*this, std::move(sockets));
    const int started = sender->start();
    if (started != kvx::kOk) return started;
    sender->wake();  // for items queued already
    const CVekAutoMutex guard(m_requestMutex);
    m_promptSender.swap(sender);
    return kvx::kOk;
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
    const CVekAutoMutex guard(m_requestMutex);
    const int result = (m_sendQueue.get()->*where)(item);
    if (result != kvx::kOk) return result;
    static_cast<void>(owned.release());
    if (m_promptSender) m_promptSender->wake();
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
