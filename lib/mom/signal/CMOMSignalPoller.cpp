#include "mom/signal/CMOMSignalPoller.h"

#include "foundation/CSignalHandler.h"

CMOMSignalPoller::CMOMSignalPoller(CVekRvNet* net) : m_net(net) {}

CMOMSignalPoller::~CMOMSignalPoller() = default;

void CMOMSignalPoller::onTimer(RvTimer* timer) {
    m_timer = timer;
    CSignalHandler::Instance().processSignals();
}
