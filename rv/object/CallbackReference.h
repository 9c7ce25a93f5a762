#pragma once

#include <utility>

#include "rv/object/RvCallback.h"

namespace kvx::detail {

/// Counts one holder more of `handle`, which may be null. Returns it.
KVX_API RvCallbackHandle* takeHandle(RvCallbackHandle* handle);

/// Counts one holder less and frees the handle with its last holder, the callback itself included.
KVX_API void releaseHandle(RvCallbackHandle* handle);

/// One holder of a callback handle: points at a callback without keeping it alive.
class CallbackReference {
  public:
    CallbackReference() = default;
    explicit CallbackReference(RvCallbackHandle* handle) : m_handle(takeHandle(handle)) {}
    CallbackReference(const CallbackReference& other) : CallbackReference(other.m_handle) {}
    CallbackReference& operator=(CallbackReference other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~CallbackReference() { releaseHandle(m_handle); }

    /// The callback as the interface that it was given as; null when there is none or it is dead.
    template <class Interface>
    Interface* as() const {
        return m_handle == nullptr ? nullptr : static_cast<Interface*>(m_handle->object);
    }

  private:
    RvCallbackHandle* m_handle = nullptr;
};

}  // namespace kvx::detail
