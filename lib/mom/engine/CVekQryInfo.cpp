#include "mom/engine/CVekQryInfo.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "mom/base/VekTrace.h"
#include "mom/engine/CVekEngine.h"

namespace {

constexpr char kQueryFile[] = "CVekQryInfo";

namespace queryLine {
enum Line : int { NullSubject = 100, CopyField = 236, CopyString = 255, UnexpectedType = 265 };
}

constexpr char kTextField[] = "QryInfoOQLStr";
constexpr char kVersionField[] = "QryInfoVersion";
constexpr unsigned long kInitialMessageSize = 1024;  // bytes

// A view of the message in `datum`, which must outlive it.
RvMsg viewOf(const RvDatum& datum) {
    return RvMsg(const_cast<rvmsg_Msg>(datum.data()));
}

RvDatum* copyOf(const RvDatum& datum) {
    if (datum.type() != RVMSG_MSG) return new RvDatum(datum);
    // The named variable forces a copy: with the call as argument, elision would return the view.
    const RvMsg view = viewOf(datum);
    return new RvMsg(view);
}

// Copies the bytes of a datum and appends a zero; without memory reports and returns null.
char* terminatedCopy(const RvDatum& datum, int line) {
    auto* const text = static_cast<char*>(std::malloc(std::size_t{datum.size()} + 1));
    if (text == nullptr) {
        kvx::report(kvx::kNoMemory, kQueryFile, line);
        return nullptr;
    }
    if (datum.size() != 0) std::memcpy(text, datum.data(), datum.size());
    text[datum.size()] = '\0';
    return text;
}

}  // namespace

CVekQryInfo::CVekQryInfo(const char* subject, RvSender* replyTo, const RvDatum& datum,
                         RvListener* invoker)
    : m_qrySubject(subject), m_replyTo(replyTo), m_qryDatum(copyOf(datum)), m_invoker(invoker) {
    if (subject == nullptr) {
        kvx::report(kvx::kInvalidArgument, kQueryFile, queryLine::NullSubject,
                    "CVekQryInfo::CVekQryInfo");
    }
}

CVekQryInfo::~CVekQryInfo() {
    delete m_replyTo;
    delete m_qryDatum;
}

const char* CVekQryInfo::RQISubject() const {
    return m_qrySubject.RSString();
}
RvSender* CVekQryInfo::RQIReplyTo() {
    return m_replyTo;
}
RvDatum* CVekQryInfo::RQIDatum() {
    return m_qryDatum;
}
RvListener* CVekQryInfo::RQIInvoker() {
    return m_invoker;
}

void CVekQryInfo::RQIReplaceDatum(RvDatum* datum) {
    if (datum != m_qryDatum) delete m_qryDatum;
    m_qryDatum = datum;
}

char* CVekQryInfo::RQIQuery() {
    const rvmsg_Type type = m_qryDatum != nullptr ? m_qryDatum->type() : RVMSG_BADDATA;
    if (type == RVMSG_MSG) {
        const RvMsg message = viewOf(*m_qryDatum);
        RvDatum field;
        message.get(kTextField, field);
        return terminatedCopy(field, queryLine::CopyField);
    }
    if (type == RVMSG_STRING) return terminatedCopy(*m_qryDatum, queryLine::CopyString);
    kvx::report(kvx::kNotCompleted, kQueryFile, queryLine::UnexpectedType,
                "CVekQryInfo::RQIQuery Unexpected message type");
    return nullptr;
}

EVekTransHdr CVekQryInfo::RQIVersion() {
    unsigned short version = 0;
    if (m_qryDatum != nullptr && m_qryDatum->type() == RVMSG_MSG) {
        viewOf(*m_qryDatum).get(kVersionField, version);
    }
    return static_cast<EVekTransHdr>(version);
}

RvMsg CVekQryInfo::RQIMessage(const char* oql) {
    RvMsg message(kInitialMessageSize);
    message.append(kTextField, oql);
    message.append(kVersionField, static_cast<unsigned short>(VEK_TRANS_V1));
    return message;
}

int CVekQryInfo::RQISendOQL(const char* oql, const char* subject, RvDataCallback* callback,
                            CVekEngine* engine, CVekRvNet* net, __boolean domainQualify) {
    if (oql == nullptr || subject == nullptr) return kvx::kMissingArgument;
    auto message = std::make_unique<RvMsg>(RQIMessage(oql));
    if (engine != nullptr) {
        return engine->REAddToSendQueue(subject, message.release(), callback, domainQualify);
    }
    if (net == nullptr) return kvx::kMissingArgument;
    net->RRNSend(subject, *message, callback);
    return kvx::kOk;
}
