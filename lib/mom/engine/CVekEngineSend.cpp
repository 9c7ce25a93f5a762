// An engine's sends: at once on the main thread, through the queue from other threads.
//
// A sender is made once per subject and kept in the net's registry, guarded by the net's lock,
// which is held across a direct send. A send may run user code, which may send again, end the
// session or destroy the engine: the registry is looked up again after it. A send from another
// thread queues a copy of the datum. The queue qualifies its subject once more, so such an item
// carries one domain suffix more than the same call on the main thread; receivers depend on it.

#include <memory>
#include <string_view>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekEngineLines.h"
#include "mom/engine/VekSubjects.h"

namespace engine = kvx::engine;

namespace {

constexpr char kQueuedInstead[] = "so adding to send queue!";

}  // namespace

kvx::Text CVekEngine::prepareSubject(const char* subject, __boolean domainQualify) {
    return domainQualify == TRUE ? kvx::Text(RRNDomainSubj(subject)) : kvx::copyText(subject);
}

int CVekEngine::RESend(const char* subject, const RvDatum& datum, __boolean domainQualify) {
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) return kvx::kInvalidArgument;
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) {
        kvx::report(thread, engine::kFile, engine::SendOffMainThread, kQueuedInstead);
        return REAddToSendQueue(prepared.get(), new RvDatum(datum), nullptr, TRUE);
    }
    const std::shared_ptr<CVekThread> lock = m_lock;
    const CVekThread::AutoMutex guard(*lock);
    if (!m_senders) return kvx::kNoSession;
    if (m_senders->RTLGet(prepared.get()) == nullptr) return sendOnNewSender(prepared.get(), datum);
    RvSender* const sender = registeredSender(prepared.get());
    const SenderUse use(*this, sender);
    return RESendWithNoReplyRequested(sender, datum);
}

/// Registers `sender`, unless user code has meanwhile registered another one for its subject.
int CVekEngine::keepSender(std::unique_ptr<RvSender> sender, const char* subject) {
    if (registeredSender(subject) != nullptr) return kvx::kOk;
    const int stored = REStoreNewSender(sender.get(), subject);
    if (stored == kvx::kOk) static_cast<void>(sender.release());
    return stored;
}

/// Sends on a new sender, which is registered when the send succeeds.
int CVekEngine::sendOnNewSender(const char* subject, const RvDatum& datum) {
    int status = kvx::kOk;
    std::unique_ptr<RvSender> sender(RRNNewSender(&status, subject, nullptr));
    const kvx::NetWatch watch = this->watch();
    const int sent = RESendWithNoReplyRequested(sender.get(), datum);
    if (sent != kvx::kOk) return sent;
    return watch.storageStands() ? keepSender(std::move(sender), subject) : kvx::kOk;
}

int CVekEngine::RESend(const RvSender* sender, const RvDatum& datum) {
    return RESendWithNoReplyRequested(sender, datum);
}

int CVekEngine::RESendWithNoReplyRequested(const RvSender* sender, const RvDatum& datum) {
    if (sender == nullptr) return kvx::kInvalidArgument;
    if (std::string_view(sender->subject()) != kvx::kHeartbeatSubject) {
        kvx::trace(kvx::kTraceCalls, "CVekEngine::RESendWithNoReplyRequested(", sender,
                   ",RvDatum)\n");
    }
    return const_cast<RvSender*>(sender)->send(datum).code() == 0 ? kvx::kOk : kvx::kNotSent;
}

RvListener* CVekEngine::RESend(const char* subject, const RvDatum& datum,
                               const RvDataCallback* callback) {
    return RESend(subject, datum, callback, RNGetLatency(), TRUE);
}

RvListener* CVekEngine::RESend(const char* subject, const RvDatum& datum,
                               const RvDataCallback* callback, unsigned long timeout,
                               __boolean domainQualify) {
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) {
        kvx::report(kvx::kInvalidArgument, engine::kFile, engine::RequestSubject);
        return nullptr;
    }
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) {
        kvx::report(thread, engine::kFile, engine::RequestOffMainThread, kQueuedInstead);
        REAddToSendQueue(prepared.get(), new RvDatum(datum), callback, TRUE);
        return nullptr;
    }
    const std::shared_ptr<CVekThread> lock = m_lock;
    const CVekThread::AutoMutex guard(*lock);
    if (!m_senders || m_senders->RTLGet(prepared.get()) == nullptr) {
        return requestOnNewSender(prepared.get(), datum, callback, timeout);
    }
    RvSender* const sender = registeredSender(prepared.get());
    const SenderUse use(*this, sender);
    RvListener* const reply = RESendAndRequestReply(sender, datum, callback, timeout);
    if (reply == nullptr) {
        kvx::report(kvx::kNotSent, engine::kFile, engine::RequestOnSender);
    }
    return reply;
}

/// Sends a request on a new sender, which is registered when the request succeeds.
RvListener* CVekEngine::requestOnNewSender(const char* subject, const RvDatum& datum,
                                           const RvDataCallback* callback, unsigned long timeout) {
    int status = kvx::kOk;
    std::unique_ptr<RvSender> sender(RRNNewSender(&status, subject, nullptr));
    const kvx::NetWatch watch = this->watch();
    RvListener* const reply = RESendAndRequestReply(sender.get(), datum, callback, timeout);
    if (reply == nullptr) {
        kvx::report(kvx::kNotSent, engine::kFile, engine::RequestOnNewSender);
        return nullptr;
    }
    if (!watch.storageStands()) return reply;
    const int stored = keepSender(std::move(sender), subject);
    if (stored != kvx::kOk) kvx::report(stored, engine::kFile, engine::StoreRequestSender);
    return reply;
}

RvListener* CVekEngine::RESend(const RvSender* sender, const RvDatum& datum,
                               const RvDataCallback* callback) {
    return RESend(sender, datum, callback, RNGetLatency());
}

RvListener* CVekEngine::RESend(const RvSender* sender, const RvDatum& datum,
                               const RvDataCallback* callback, unsigned long timeout) {
    return RESendAndRequestReply(sender, datum, callback, timeout);
}

RvListener* CVekEngine::RESendAndRequestReply(const RvSender* sender, const RvDatum& datum,
                                              const RvDataCallback* callback,
                                              unsigned long timeout) {
    if (sender == nullptr) return nullptr;
    kvx::trace(kvx::kTraceCalls, "CVekEngine::RESendAndRequestReply(", sender->subject(),
               ",RvDatum,RvDataCallback,ulong)\n");
    return const_cast<RvSender*>(sender)->sendRequest(datum, timeout,
                                                      const_cast<RvDataCallback*>(callback), this);
}

RvSender* CVekEngine::RENewSender(const char* subject, __boolean domainQualify) {
    const kvx::Text prepared = prepareSubject(subject, domainQualify);
    if (!prepared) {
        kvx::report(kvx::kInvalidArgument, engine::kFile, engine::NewSenderSubject);
        return nullptr;
    }
    return RENewSenderOnSubject(prepared.get());
}

RvSender* CVekEngine::RENewSenderOnSubject(const char* subject) {
    kvx::trace(kvx::kTraceCalls, "CVekEngine::RENewSenderOnSubject(", kvx::textOrNull(subject),
               ")\n");
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_senders) return nullptr;
    if (m_senders->RTLGet(subject) != nullptr) return registeredSender(subject);
    int status = kvx::kOk;
    RvSender* const sender = RRNNewSender(&status, subject, nullptr);
    const int stored = REStoreNewSender(sender, subject);
    if (stored != kvx::kOk) kvx::report(stored, engine::kFile, engine::StoreSender);
    return sender;
}

int CVekEngine::REStoreNewSender(RvSender* sender, const char* subject) {
    auto holder = std::make_unique<CVekPointer>(sender);
    const int result = m_senders->RTLAdd(subject, holder.get());
    if (result != kvx::kOk) return result;
    static_cast<void>(holder.release());
    noteSender(subject);
    return result;
}
