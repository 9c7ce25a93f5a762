#include "mom/engine/CVekSendQueueItem.h"

#include <memory>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"
#include "platform/Memory.h"

namespace {

constexpr char kSendItemFile[] = "CVekSendQueueItem";

namespace sendItemLine {
enum Line : int { CopySubject = 0, Send = 210 };
}

char* ownedSubject(const char* subject) {
    char* const copy = kvx::copyText(subject).release();
    if (copy == nullptr) kvx::report(kvx::kNoMemory, kSendItemFile, sendItemLine::CopySubject);
    return copy;
}

CVekEngine* engineOf(const CVekSendQueueItem& item) {
    return static_cast<CVekEngine*>(item.m_closure);
}

}  // namespace

CVekSendQueueItem::CVekSendQueueItem(const char* subject, RvDatum* datum,
                                     const RvDataCallback* callback, void* closure, int timeout)
    : m_subject(ownedSubject(subject)),
      m_datum(datum),
      m_callback(callback),
      m_closure(closure),
      m_timeout(timeout) {}

CVekSendQueueItem::CVekSendQueueItem(RvDatum* datum, const RvDataCallback* callback, void* closure,
                                     RvSender* sender, int timeout)
    : CVekSendQueueItem(sender != nullptr ? sender->subject() : nullptr, datum, callback, closure,
                        timeout) {}

CVekSendQueueItem::~CVekSendQueueItem() {
    std::free(m_subject);
    delete m_datum;
}

int CVekSendQueueItem::RSQIDeQueueIt() {
    const int status = m_datum == nullptr      ? kvx::kInvalidArgument
                       : m_callback == nullptr ? engineOf(*this)->RESend(m_subject, *m_datum, FALSE)
                                               : sendRequest();
    if (status != kvx::kOk) kvx::report(status, kSendItemFile, sendItemLine::Send);
    return status;
}

int CVekSendQueueItem::sendRequest() {
    CVekEngine* const engine = engineOf(*this);
    const kvx::NetWatch watch = engine->watch();
    std::unique_ptr<RvListener> reply(engine->RESend(m_subject, *m_datum, m_callback,
                                                     static_cast<unsigned int>(m_timeout), FALSE));
    if (!reply) return kvx::kNotSent;
    if (!watch.storageStands()) return kvx::kNoSession;
    const int stored = engine->storeReply(reply.get());
    if (stored == kvx::kOk) static_cast<void>(reply.release());
    return stored;
}
