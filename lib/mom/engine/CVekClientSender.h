#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// A one-shot timer callback that sends a prepared datum as a request and then deletes itself.
///
/// Make it with `new` and arm it on a one-shot timer whose closure is the net (`RRNAddTimer`). The
/// caller owns it until the timer fires, and must not use it after that. Assignment shares subject
/// and datum: do not destroy both copy and source.
class KVX_API CVekClientSender : public RvTimerCallback {
  public:
    /// Takes ownership of `subject`, a `malloc`ed text. Sends `text` as a string datum without its
    /// terminating zero; the text is borrowed and must outlive the sender. `callback` gets the
    /// reply.
    CVekClientSender(char* subject, char* text, const RvDataCallback* callback);

    /// Takes ownership of `subject`, a `malloc`ed text, and of `datum`.
    CVekClientSender(char* subject, RvDatum* datum, const RvDataCallback* callback);
    CVekClientSender(const CVekClientSender&) = delete;
    CVekClientSender& operator=(const CVekClientSender&) = default;
    ~CVekClientSender() override;

    /// Sends the datum through the net and deletes this object. Reports a failure. Loop thread
    /// only.
    void onTimer(RvTimer* timer) override;

    char* m_sendSubject;                    // owned, malloc
    const RvDataCallback* m_replyCallback;  // not owned
    RvDatum* m_sendDatum;                   // owned
};
