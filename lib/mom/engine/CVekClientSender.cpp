#include "mom/engine/CVekClientSender.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "mom/base/VekTrace.h"
#include "mom/net/CVekRvNet.h"

namespace {

constexpr char kClientSenderFile[] = "CVekClientSender";

namespace clientSenderLine {
enum Line : int { NewDatum = 68, Send = 114, NoDatum = 120 };
}

RvDatum* stringDatum(char* text) {
    if (text == nullptr) return nullptr;
    auto* const datum =
        new (std::nothrow) RvDatum(RVMSG_STRING, static_cast<rvmsg_Size>(std::strlen(text)), text);
    if (datum == nullptr) {
        kvx::report(kvx::kNoMemory, kClientSenderFile, clientSenderLine::NewDatum);
    }
    return datum;
}

}  // namespace

CVekClientSender::CVekClientSender(char* subject, char* text, const RvDataCallback* callback)
    : m_sendSubject(subject), m_replyCallback(callback), m_sendDatum(stringDatum(text)) {}

CVekClientSender::CVekClientSender(char* subject, RvDatum* datum, const RvDataCallback* callback)
    : m_sendSubject(subject), m_replyCallback(callback), m_sendDatum(datum) {}

CVekClientSender::~CVekClientSender() {
    std::free(m_sendSubject);
    delete m_sendDatum;
}

void CVekClientSender::onTimer(RvTimer* timer) {
    auto* const net = static_cast<CVekRvNet*>(timer->closure());
    if (m_sendDatum != nullptr) {
        const int status =
            net->RRNSend(m_sendSubject, *m_sendDatum, const_cast<RvDataCallback*>(m_replyCallback));
        if (status != kvx::kOk) {
            kvx::report(status, kClientSenderFile, clientSenderLine::Send);
        }
    } else {
        kvx::report(kvx::kInvalidArgument, kClientSenderFile, clientSenderLine::NoDatum,
                    "null datum in CVekClientSender::onTimer");
    }
    delete this;
}
