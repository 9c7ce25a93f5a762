#pragma once

#include "rv/object/CallbackReference.h"
#include "rv/object/RvSessionObject.h"

/// Base of everything that calls a callback: a listener, a timer, watched I/O or a signal.
///
/// Deleting an event removes its registration. An event whose callback was destroyed removes its
/// registration the next time it is due.
class KVX_API RvEvent : public RvSessionObject {
  public:
    ~RvEvent() override;

    /// The callback, or null once it has been destroyed.
    RvCallback* callback() const;

    /// The closure given at creation.
    void* closure() const { return m_closure; }

  protected:
    RvEvent(RvSessionBlock* block, RvCallback* callback, void* closure);

  private:
    kvx::detail::CallbackReference m_callback;
    void* m_closure;
};
