#pragma once

#include "foundation/foundation.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekEngine;
class CVekTransport;

/// A data callback that hands each datum it sees to a pool of update threads, as a `CVekUpdWork`.
///
/// Assignment shares the transport: the copy is not to be destroyed beside its source.
class KVX_API CVekSnoop : public RvDataCallback {
  public:
    /// `pool` may be null, then every datum is dropped; else it must outlive the snoop.
    explicit CVekSnoop(CVekServPool* pool);
    CVekSnoop(const CVekSnoop&) = delete;
    CVekSnoop& operator=(const CVekSnoop&) = default;
    ~CVekSnoop() override;

    /// Forgets pool and transport without deleting anything.
    void RSInitialise();

    void onData(const char* subject, RvSender* replySender, const RvDatum& data,
                RvListener* listener) override;

    /// Queues a copy of `data` in the pool. Loop thread only.
    void RSProcessData(const char* subject, RvSender* replySender, const RvDatum& data,
                       RvListener* listener);

    /// Makes the transport with which the pool's threads decode, unless there is one or `engine` is
    /// null.
    void RSTransport(CVekEngine* engine);

    /// The transport, or null. The snoop owns it.
    CVekTransport* RSTransport();

    CVekServPool* m_updatePool;       // not owned
    CVekTransport* m_snoopTransport;  // owned
};
