#pragma once

#include <cstdint>

#include "platform/Export.h"

class RvCallback;

/// Tells the holders of a callback whether it is still alive.
///
/// A callback object and everything that may call it share one handle. `object` becomes null when
/// the callback is destroyed; the handle itself goes with its last holder.
struct RvCallbackHandle {
    RvCallback* object;
    std::int32_t refs;
};

/// Root of the callback interfaces.
///
/// The user owns its callbacks and may destroy them at any time, also inside their own call: events
/// that still point at one find out through its handle. Loop thread only, but for construction.
class KVX_API RvCallback {
  public:
    /// When the handle cannot be allocated the callback has none, and is never called.
    RvCallback();
    /// A copy is a callback of its own, with a handle of its own.
    RvCallback(const RvCallback& other);
    /// Keeps this object's handle: whoever points at it goes on doing so.
    RvCallback& operator=(const RvCallback& other);
    virtual ~RvCallback();

  private:
    friend class RvEvent;
    friend class RvSession;

    RvCallbackHandle* m_handle;
};
