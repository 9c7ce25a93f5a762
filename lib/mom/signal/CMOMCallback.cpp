#include "mom/signal/CMOMCallback.h"

CMOMCallback::CMOMCallback(CCallbackBase* callback) : m_callback(callback) {}

CMOMCallback::~CMOMCallback() = default;

void CMOMCallback::onTimer(RvTimer*) {
    if (m_callback != nullptr) (*m_callback)();
    delete this;
}
