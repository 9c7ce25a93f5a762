// Two steps of a send may run user code: the outbound filter, and the core, which calls its own
// listeners when it finds the daemon gone. Either may destroy this sender and the session. So a
// send holds the session block, passes copies of the texts, and uses no member afterwards.

#include "rv/object/RvSender.h"

#include <memory>

#include "rv/error/rvCodes.h"
#include "rv/message/RvDatum.h"
#include "rv/object/EventState.h"
#include "rv/object/FilteredDatum.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSession.h"
#include "rv/object/SessionBlock.h"

using kvx::Text;
using kvx::detail::BlockHold;

namespace {

int post(const RvSessionBlock& block, const char* subject, const char* reply,
         const RvDatum& datum) {
    if (block.handle == nullptr) return kvx::session_code::kInvalidSession;
    return rv_Send(block.handle, subject, reply, datum.type(), datum.size(), datum.data());
}

}  // namespace

RvSender::RvSender(RvSessionBlock* block, const char* subject, const char* replySubject)
    : RvSessionObject(block),
      m_subject(kvx::copyText(subject)),
      m_replySubject(kvx::copyText(replySubject)) {
    const bool complete = m_subject != nullptr && (replySubject == nullptr || m_replySubject);
    if (!complete) *m_block->status = RvStatus(kvx::session_code::kNoMemory);
}

RvSender::~RvSender() = default;

int RvSender::publish(const RvDatum& data, const char* replySubject) {
    const RvSessionBlock& block = *m_block;
    if (m_outboundFilter.as<RvDatumFilter>() == nullptr) {
        return post(block, m_subject.get(), replySubject, data);
    }
    const Text subject = kvx::copyText(m_subject.get());
    const Text reply = kvx::copyText(replySubject);
    if (subject == nullptr || (replySubject != nullptr && reply == nullptr)) {
        return kvx::session_code::kNoMemory;
    }
    const kvx::detail::FilteredDatum filtered(m_outboundFilter, const_cast<RvDatum&>(data), this);
    if (filtered.get() == nullptr) return kvx::session_code::kInvalidArgument;
    return post(block, subject.get(), reply.get(), *filtered.get());
}

RvStatus RvSender::send(const RvDatum& data) {
    RvSessionBlock& block = *m_block;
    const BlockHold hold(block);
    const RvStatus outcome(publish(data, m_replySubject.get()));
    *block.status = outcome;
    return outcome;
}

RvListener* RvSender::sendRequest(const RvDatum& data, RvDataCallback* callback, void* closure) {
    return sendRequest(data, 0, callback, closure);
}

RvListener* RvSender::sendRequest(const RvDatum& data, unsigned long timeoutMs,
                                  RvDataCallback* callback, void* closure) {
    RvSessionBlock& block = *m_block;
    const BlockHold hold(block);
    if (block.handle == nullptr) {
        *block.status = RvStatus(kvx::session_code::kInvalidSession);
        return nullptr;
    }
    std::unique_ptr<RvListener> inbox(block.owner->newInbox(timeoutMs, callback, closure));
    if (inbox == nullptr) return nullptr;
    const kvx::detail::StateHold made(inbox->state());
    const RvStatus outcome(publish(data, inbox->subject()));
    if (!made.hasEvent()) {
        static_cast<void>(inbox.release());
    } else if (!(outcome == 0)) {
        inbox.reset();
    }
    *block.status = outcome;
    return inbox.release();
}
