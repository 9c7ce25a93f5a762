#include "mom/engine/CVekSendQueueItem.h"

#include "mom/engine/CVekEngine.h"
#include "mom/net/VekCodes.h"
#include "mom/net/VekText.h"

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
    auto* const engine = static_cast<CVekEngine*>(m_closure);
    int status = kvx::kNotSent;
    if (m_datum == nullptr) {
        status = kvx::kInvalidArgument;
    } else if (m_callback == nullptr) {
        status = engine->RESend(m_subject, *m_datum, FALSE);
    } else if (RvListener* const reply = engine->RESend(
                   m_subject, *m_datum, m_callback, static_cast<unsigned int>(m_timeout), FALSE)) {
        status = engine->RRNStoreListener(reply);
    }
    if (status != kvx::kOk) kvx::report(status, kSendItemFile, sendItemLine::Send);
    return status;
}
