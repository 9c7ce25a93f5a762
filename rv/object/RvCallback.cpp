// A handle has one holder for the callback itself and one for each event, sender or session that
// points at it. The callback clears `object` when it is destroyed; the last holder frees the
// handle.

#include "rv/object/RvCallback.h"

#include <new>

#include "rv/object/CallbackReference.h"
#include "rv/object/RvDataCallback.h"
#include "rv/object/RvDatumFilter.h"
#include "rv/object/RvIOCallback.h"
#include "rv/object/RvSignalCallback.h"
#include "rv/object/RvTimerCallback.h"

namespace {

bool isUnused(const RvCallbackHandle& handle) {
    return handle.refs < 1 && handle.object == nullptr;
}

}  // namespace

RvCallbackHandle* kvx::detail::takeHandle(RvCallbackHandle* handle) {
    if (handle != nullptr) ++handle->refs;
    return handle;
}

void kvx::detail::releaseHandle(RvCallbackHandle* handle) {
    if (handle == nullptr) return;
    --handle->refs;
    if (isUnused(*handle)) delete handle;
}

RvCallback::RvCallback()
    : m_handle(new (std::nothrow) RvCallbackHandle{.object = this, .refs = 1}) {}

RvCallback::RvCallback(const RvCallback& /*other*/) : RvCallback() {}

RvCallback& RvCallback::operator=(const RvCallback& /*other*/) {
    return *this;
}

RvCallback::~RvCallback() {
    if (m_handle == nullptr) return;
    m_handle->object = nullptr;
    kvx::detail::releaseHandle(m_handle);
}

RvTimerCallback::~RvTimerCallback() = default;
RvIOCallback::~RvIOCallback() = default;
RvSignalCallback::~RvSignalCallback() = default;
RvDatumFilter::~RvDatumFilter() = default;
RvDataCallback::~RvDataCallback() = default;

void RvDataCallback::onTimeout(RvListener* /*listener*/) {}
