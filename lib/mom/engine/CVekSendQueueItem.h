#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// One send in an engine's queue.
///
/// Copies share the subject and the datum: do not destroy both copy and source.
class KVX_API CVekSendQueueItem {
  public:
    /// Copies `subject`, takes ownership of `datum`. `callback`, null for no reply, must outlive
    /// the item. `closure` is the `CVekEngine` that sends the item. `timeout` in milliseconds.
    /// Without memory for the copy reports -220553 and leaves the subject null.
    CVekSendQueueItem(const char* subject, RvDatum* datum, const RvDataCallback* callback,
                      void* closure, int timeout);

    /// As above with the subject of `sender`; does not keep `sender`.
    CVekSendQueueItem(RvDatum* datum, const RvDataCallback* callback, void* closure,
                      RvSender* sender, int timeout);

    CVekSendQueueItem(const CVekSendQueueItem&) = default;
    CVekSendQueueItem& operator=(const CVekSendQueueItem&) = default;
    virtual ~CVekSendQueueItem();

    /// Sends the item through its engine without qualifying the subject; a reply listener is
    /// entered in the engine's registry. Returns 1, or the code of the failure, which is reported.
    /// Main thread.
    virtual int RSQIDeQueueIt();

    char* m_subject;                   // owned, malloc
    RvDatum* m_datum;                  // owned
    const RvDataCallback* m_callback;  // not owned, may be null
    void* m_closure;                   // the engine
    int m_timeout;                     // milliseconds

  private:
    int sendRequest();
};
