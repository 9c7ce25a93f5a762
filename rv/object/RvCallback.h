#pragma once

#include <cstdint>

#include "platform/Export.h"

class RvCallback;

/// Says whether a callback is still alive.
///
/// A callback object and everything that may call it share one handle. `object` becomes null when
/// the callback is destroyed; the last holder frees the handle.
struct RvCallbackHandle {
    RvCallback* object;
    std::int32_t refs;
};

/// Root of the callback interfaces.
///
/// The user owns its callbacks and may destroy them at any time, also inside their own call; a
/// destroyed one is not called any more. Loop thread only, except construction.
class KVX_API RvCallback {
  public:
    /// Without memory for the handle the callback is never called.
    RvCallback();
    /// A copy gets its own handle.
    RvCallback(const RvCallback& other);
    /// Keeps this object's handle, so references to it stay valid.
    RvCallback& operator=(const RvCallback& other);
    virtual ~RvCallback();

  private:
    friend class RvEvent;
    friend class RvSession;

    RvCallbackHandle* m_handle;
};
