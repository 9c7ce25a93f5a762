#pragma once

#include <utility>

#include "rv/object/RvCallback.h"

namespace kvx::detail {

/// Adds a holder to `handle`, which may be null. Returns it.
KVX_API RvCallbackHandle* takeHandle(RvCallbackHandle* handle);

/// Removes a holder; the last one, the callback itself included, frees the handle.
KVX_API void releaseHandle(RvCallbackHandle* handle);

/// A weak reference to a callback: one holder of its handle.
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

    /// The callback as its interface; null when there is none or it was destroyed.
    template <class Interface>
    Interface* as() const {
        return m_handle == nullptr ? nullptr : static_cast<Interface*>(m_handle->object);
    }

  private:
    RvCallbackHandle* m_handle = nullptr;
};

}  // namespace kvx::detail
