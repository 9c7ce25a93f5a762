// The path of a signal: the catcher of the port library sets a flag; within 100 milliseconds the
// poller's timer fires and lets the catcher process its flags; the catcher passes the signal's
// callback to `runHandler`, which adds a timer of interval 0; that timer runs the callback at the
// next turn of the main loop. So a signal always takes effect between two events of the bus.
//
// Several signals may wait for that turn, and the callback of the first may stop or destroy the
// handler. A turn therefore does not refer to the handler: it asks the catcher, which is never
// destroyed, whether there was a stop since.

#include "mom/signal/CMOMSignalHandler.h"

#include <iostream>
#include <memory>
#include <utility>

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"
#include "mom/base/VekTrace.h"
#include "mom/net/CVekRvNet.h"
#include "mom/net/DiesWithTimer.h"
#include "mom/signal/CMOMCallback.h"
#include "mom/signal/CMOMSignalPoller.h"
#include "mom/signal/CSignalCallback.h"

namespace {

using Callback = CSignalCallback<CMOMSignalHandler>;

constexpr int kPollInterval = 100;  // milliseconds
constexpr int kHighestDebugLevel = 4;

// The port library's numbers.
constexpr int kInterrupt = 2;
constexpr int kTerminate = 15;
constexpr int kHangUp = 34;
constexpr int kUser1 = 35;
constexpr int kUser2 = 36;

// One signal: its callback, and its report when it cannot be registered.
struct Registration {
    int signal;
    Callback::Method method;
    bool endsProcess;
    int line;
    const char* text;
};

constexpr Registration kRegistrations[] = {
    {kTerminate, &CMOMSignalHandler::callExitHandler, true, 185, "Could not register SIGTERM"},
    {kInterrupt, &CMOMSignalHandler::callExitHandler, true, 194, "Could not register SIGINT"},
    {kUser1, &CMOMSignalHandler::callExitHandler, true, 203, "Could not register SIGUSR1"},
    {kHangUp, &CMOMSignalHandler::doNothing, false, 216, "Could not register SIGHUP"},
    {kUser2, &CMOMSignalHandler::raiseDebugLevel, false, 229, "Could not register SIGUSR2"},
};

// The turn in which a signal's callback runs. A stop in between drops the signal.
class SignalTurn final : public CMOMCallback, public kvx::DiesWithTimer {
  public:
    explicit SignalTurn(CCallbackBase* callback) : CMOMCallback(callback) {}

    void onTimer(RvTimer* timer) override {
        if (CSignalHandler::Instance().stops() != m_stops) m_callback = nullptr;
        CMOMCallback::onTimer(timer);
    }

  private:
    const unsigned long m_stops = CSignalHandler::Instance().stops();
};

// The catcher owns an accepted callback.
bool addOwn(CMOMSignalHandler* handler, const Registration& one) {
    auto callback = std::make_unique<Callback>(handler, one.method, one.signal);
    const bool added = CSignalHandler::Instance().add(one.signal, callback.get(), false);
    if (added) static_cast<void>(callback.release());
    return added;
}

}  // namespace

CMOMSignalHandler::CMOMSignalHandler() = default;

CMOMSignalHandler::~CMOMSignalHandler() {
    if (m_net != nullptr) {
        kvx::trace(kvx::kTraceWarnings, "unexpected - signal poller still running\n");
    }
    stop();
}

void CMOMSignalHandler::manage(CVekNet* net) {
    manage(net, {});
}

void CMOMSignalHandler::manage(CVekNet* net, std::function<void()> leave) {
    if (net == nullptr) return;
    auto* busNet = dynamic_cast<CVekRvNet*>(net);
    if (busNet == nullptr) {
        kvx::report(kvx::kInvalidArgument, "CMOMSignalHandler", 0);
        return;
    }
    m_net = net;
    m_leave = std::move(leave);
    CSignalHandler::Instance().manage(this);
    if (m_net != net) return;  // stopped during the registration
    delete m_poller;
    m_poller = new CMOMSignalPoller(busNet);
    busNet->RRNAddRepeatTimer(kPollInterval, m_poller);
}

void CMOMSignalHandler::stop() {
    if (m_net == nullptr) return;
    if (m_poller != nullptr) m_poller->m_net->RRNRemoveTimer(m_poller->m_timer);
    delete m_poller;
    m_poller = nullptr;
    CSignalHandler::Instance().stop();
    m_net = nullptr;
}

void CMOMSignalHandler::blockAllSignals() {
    CSignalHandler::blockAll();
}

void CMOMSignalHandler::shutdown(int) {
    kvx::writeGuarded(std::cout, "Shutdown message received!\n");
    CSignalHandler::Instance().handleSignal(kUser1);
}

void CMOMSignalHandler::raiseDebugLevel(int) {
    const int present = __ZembraLix_Debug_Level;
    const int level = present >= kHighestDebugLevel ? 0 : present + 1;
    kvx::writeGuarded(std::cout, "Received SIGUSR2: Switched to debug level ", level, "\n");
    __ZembraLix_Debug_Level = level;
}

void CMOMSignalHandler::doNothing(int) {}

void CMOMSignalHandler::callExitHandler(int) {
    if (const auto leave = m_leave) {
        leave();
    } else {
        CVekProcess::Instance().Exit(0);
    }
}

bool CMOMSignalHandler::registerHandler(CCallbackBase* exitCallback) {
    for (const Registration& one : kRegistrations) {
        const bool added = one.endsProcess && exitCallback != nullptr
                               ? CSignalHandler::Instance().add(one.signal, exitCallback, false)
                               : addOwn(this, one);
        if (!added) kvx::report(kvx::kNotRegistered, "CMOMSignalHandler", one.line, one.text);
    }
    return true;
}

bool CMOMSignalHandler::runHandler(CCallbackBase* callback) {
    auto* net = dynamic_cast<CVekRvNet*>(m_net);
    if (net == nullptr) return true;
    auto once = std::make_unique<SignalTurn>(callback);
    const int result = net->RRNAddTimer(0, once.get());
    // A request of another thread may still be served after it timed out.
    const bool mayFire = result == kvx::kOk || CVekThread::RTId() != net->m_mainThreadId;
    if (mayFire) static_cast<void>(once.release());
    return true;
}
