#pragma once

#include "foundation/foundation.h"
#include "mom/transport/CVekTransport.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekEngine;
class CVekRvNet;

/// A received query: subject, reply sender, message and listener.
///
/// Used by one thread at a time. Assignment shares what the source owns: do not destroy both.
class KVX_API CVekQryInfo {
  public:
    /// Copies `subject` and `datum`, takes ownership of `replyTo`, stores `invoker`. The sender
    /// given to a data callback is destroyed when the callback returns: pass a new one, made with
    /// `net->RRNNewSender(&status, replyTo->subject(), nullptr)`. Reports -220552 for a null
    /// subject.
    CVekQryInfo(const char* subject, RvSender* replyTo, const RvDatum& datum, RvListener* invoker);
    CVekQryInfo(const CVekQryInfo&) = delete;
    CVekQryInfo& operator=(const CVekQryInfo&) = default;
    virtual ~CVekQryInfo();

    // The object owns what these return, except the invoker.
    const char* RQISubject() const;
    RvSender* RQIReplyTo();
    RvDatum* RQIDatum();
    RvListener* RQIInvoker();

    /// Deletes the current datum and takes ownership of `datum`.
    void RQIReplaceDatum(RvDatum* datum);

    /// The query text, which the caller frees with `free`: the field "QryInfoOQLStr" of a message
    /// (empty when absent), or the string. For any other datum reports -220439 and returns null.
    char* RQIQuery();

    /// The header version that the sender expects in the answer; 0 when absent.
    EVekTransHdr RQIVersion();

    /// Sends `oql` to `subject` as a request whose replies go to `callback`: through the queue of
    /// `engine` (any thread; closure of the callback is the engine), or without one directly
    /// through `net` (main thread; the subject is always qualified). The replies are transport
    /// packets; `onTimeout` is called only when none comes, not when the rest is missing. In both
    /// cases the net's registry keeps the reply listener: after the whole answer or a time-out the
    /// callback calls `RRNRemoveListener(listener->subject())` of engine or net. Returns the
    /// queue's result, 1 for a net, -220402 without text, subject or network.
    static int RQISendOQL(const char* oql, const char* subject, RvDataCallback* callback,
                          CVekEngine* engine, CVekRvNet* net, __boolean domainQualify);

    /// The message that asks for `oql`, with answers of version 1: what `RQISendOQL` sends.
    static RvMsg RQIMessage(const char* oql);

    CVekString m_qrySubject;
    RvSender* m_replyTo;    // owned
    RvDatum* m_qryDatum;    // owned
    RvListener* m_invoker;  // not owned
};
