#pragma once

#include "foundation/foundation.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekEngine;
class CVekTransport;

/// A data callback that queues each datum in a pool of update threads, as a `CVekUpdWork`.
///
/// Assignment shares the transport: do not destroy both copy and source.
class KVX_API CVekSnoop : public RvDataCallback {
  public:
    /// `pool` must outlive the snoop; with null every datum is dropped.
    explicit CVekSnoop(CVekServPool* pool);
    CVekSnoop(const CVekSnoop&) = delete;
    CVekSnoop& operator=(const CVekSnoop&) = default;
    ~CVekSnoop() override;

    /// Clears pool and transport without deleting them.
    void RSInitialise();

    void onData(const char* subject, RvSender* replySender, const RvDatum& data,
                RvListener* listener) override;

    /// Queues a copy of `data` in the pool. The work unit belongs to the pool from the call of
    /// `RSPAddWorkDetail` on, also when that fails (reported as -220439): it is not deleted here,
    /// so a pool that counts on failures deletes what it refuses. Loop thread only.
    void RSProcessData(const char* subject, RvSender* replySender, const RvDatum& data,
                       RvListener* listener);

    /// Makes the transport with which the pool's threads decode; does nothing when there is one or
    /// `engine` is null.
    void RSTransport(CVekEngine* engine);

    /// The transport, or null. The snoop owns it.
    CVekTransport* RSTransport();

    CVekServPool* m_updatePool;       // not owned
    CVekTransport* m_snoopTransport;  // owned
};
