#pragma once

#include "foundation/foundation.h"
#include "mom/transport/CVekTransport.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekEngine;
class CVekRvNet;

/// A query as the answering service keeps it: subject, reply sender, message and listener.
///
/// Belongs to the thread that handles the query. Assignment shares what the source owns: the copy
/// is not to be destroyed beside it.
class KVX_API CVekQryInfo {
  public:
    /// Copies `subject` and `datum`, takes ownership of `replyTo`, keeps `invoker`. The sender that
    /// a data callback is given dies when the callback returns: pass one of your own, made with
    /// `net->RRNNewSender(&status, replyTo->subject(), nullptr)`. A null subject is reported with
    /// -220552.
    CVekQryInfo(const char* subject, RvSender* replyTo, const RvDatum& datum, RvListener* invoker);
    CVekQryInfo(const CVekQryInfo&) = delete;
    CVekQryInfo& operator=(const CVekQryInfo&) = default;
    virtual ~CVekQryInfo();

    // The object owns what these return, but for the invoker.
    const char* RQISubject() const;
    RvSender* RQIReplyTo();
    RvDatum* RQIDatum();
    RvListener* RQIInvoker();

    /// Deletes the datum held and takes ownership of `datum`.
    void RQIReplaceDatum(RvDatum* datum);

    /// The query text, which the caller frees with `free`: of a message its field "QryInfoOQLStr"
    /// (empty when there is none), of a string the string itself. Null, and a report of -220439,
    /// for any other datum.
    char* RQIQuery();

    /// The header version that the querier expects in the answer; 0 when it does not say.
    EVekTransHdr RQIVersion();

    /// Sends `oql` to `subject` as a request whose replies go to `callback`: through the queue of
    /// `engine` (any thread; closure of the callback is the engine), or without one directly
    /// through `net` (main thread; the subject is always qualified). The replies are transport
    /// packets. Either way the net's registry keeps the reply listener: a callback that has the
    /// whole answer, or gives up at a time-out, calls `RRNRemoveListener(listener->subject())` of
    /// engine or net. Returns the queue's result, 1 for a net, -220402 without text, subject or
    /// network.
    static int RQISendOQL(const char* oql, const char* subject, RvDataCallback* callback,
                          CVekEngine* engine, CVekRvNet* net, __boolean domainQualify);

    CVekString m_qrySubject;
    RvSender* m_replyTo;    // owned
    RvDatum* m_qryDatum;    // owned
    RvListener* m_invoker;  // not owned
};
