// The signal handler only sets one lock-free flag. The flags are in static storage and need neither
// construction nor destruction, so a signal may arrive at any time, before `main` and after it too.
//
// A callback passed to `runHandler` may run later, after its registration was replaced or dropped.
// So no callback that was added is deleted before the process exits. The dispatcher itself is never
// destroyed: static destructors may still call it.

#include "foundation/CSignalHandler.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <new>

#include "foundation/CCallbackBase.h"
#include "foundation/CSignalHandlerInterface.h"
#include "platform/Signals.h"

namespace {

namespace numbers = kvx::platform::signal_number;

// One of the five: its number in the port library's numbering, and in the system's.
struct KnownSignal {
    int portNumber;
    int (*systemNumber)() noexcept;
};

constexpr std::array<KnownSignal, 5> kKnownSignals = {{{2, &numbers::interrupt},
                                                       {15, &numbers::terminate},
                                                       {34, &numbers::hangup},
                                                       {35, &numbers::user1},
                                                       {36, &numbers::user2}}};

std::array<std::atomic<bool>, kKnownSignals.size()> caughtSignals{};
static_assert(std::atomic<bool>::is_always_lock_free);

// The index of a port library's number; the number of known signals for any other.
std::size_t indexOfPortNumber(int number) {
    const auto* found = std::find_if(kKnownSignals.begin(), kKnownSignals.end(),
                                     [number](const auto& s) { return s.portNumber == number; });
    return static_cast<std::size_t>(found - kKnownSignals.begin());
}

// Runs on whatever thread the signal interrupts.
void rememberSignal(int systemNumber) {
    for (std::size_t i = 0; i < kKnownSignals.size(); ++i) {
        if (kKnownSignals[i].systemNumber() == systemNumber) caughtSignals[i].store(true);
    }
}

}  // namespace

class CSignalHandler::ReleaseAtExit {
  public:
    explicit ReleaseAtExit(CSignalHandler& handler) : handler_(handler) {}
    // A callback's destructor is user code, and may add another callback.
    ~ReleaseAtExit() {
        for (;;) {
            decltype(handler_.m_owned) owned;
            {
                const std::lock_guard lock(handler_.m_mutex);
                handler_.dropRegistrations();
                owned.swap(handler_.m_owned);
            }
            if (owned.empty()) return;
        }
    }
    ReleaseAtExit(const ReleaseAtExit&) = delete;
    ReleaseAtExit& operator=(const ReleaseAtExit&) = delete;

  private:
    CSignalHandler& handler_;
};

CSignalHandler& CSignalHandler::Instance() {
    static CSignalHandler& handler = *new CSignalHandler;
    static const ReleaseAtExit release(handler);
    return handler;
}

void CSignalHandler::manage(CSignalHandlerInterface* handler) {
    {
        const std::lock_guard lock(m_mutex);
        m_interface = handler;
    }
    if (handler != nullptr) handler->registerHandler(nullptr);
}

bool CSignalHandler::add(int signal, CCallbackBase* callback, bool /*reserved*/) {
    const std::size_t index = indexOfPortNumber(signal);
    if (index == kSignals || callback == nullptr) return false;
    const std::lock_guard lock(m_mutex);
    try {
        m_owned.reserve(m_owned.size() + 1);
    } catch (const std::bad_alloc&) {
        return false;
    }
    const int systemNumber = kKnownSignals[index].systemNumber();
    if (!kvx::platform::installSignalHandler(systemNumber, &rememberSignal)) return false;
    m_callbacks[index] = callback;
    const bool isOwned = std::any_of(m_owned.begin(), m_owned.end(), [callback](const auto& owned) {
        return owned.get() == callback;
    });
    if (!isOwned) m_owned.emplace_back(callback);
    return true;
}

void CSignalHandler::handleSignal(int signal) {
    const std::size_t index = indexOfPortNumber(signal);
    if (index < kSignals) caughtSignals[index].store(true);
}

void CSignalHandler::processSignals() {
    for (std::size_t i = 0; i < kSignals; ++i) {
        if (!caughtSignals[i].exchange(false)) continue;
        CSignalHandlerInterface* handler = nullptr;
        CCallbackBase* callback = nullptr;
        {
            const std::lock_guard lock(m_mutex);
            handler = m_interface;
            callback = m_callbacks[i];
        }
        // Outside the lock: the handler may call add, stop and manage.
        if (handler != nullptr && callback != nullptr) handler->runHandler(callback);
    }
}

void CSignalHandler::stop() {
    const std::lock_guard lock(m_mutex);
    stopLocked();
}

void CSignalHandler::forget(const CSignalHandlerInterface* handler) {
    CSignalHandler& dispatcher = Instance();
    const std::lock_guard lock(dispatcher.m_mutex);
    if (dispatcher.m_interface == handler) dispatcher.stopLocked();
}

void CSignalHandler::stopLocked() {
    ++m_stops;
    for (std::size_t i = 0; i < kSignals; ++i) {
        if (m_callbacks[i] == nullptr) continue;
        kvx::platform::restoreDefaultSignal(kKnownSignals[i].systemNumber());
    }
    dropRegistrations();
}

void CSignalHandler::blockAll() {
    std::array<int, kSignals> numbersToBlock{};
    std::transform(kKnownSignals.begin(), kKnownSignals.end(), numbersToBlock.begin(),
                   [](const auto& known) { return known.systemNumber(); });
    kvx::platform::blockSignals(numbersToBlock);
}

void CSignalHandler::dropRegistrations() {
    m_interface = nullptr;
    m_callbacks = {};
    for (auto& caught : caughtSignals) caught.store(false);
}

CSignalHandlerInterface::~CSignalHandlerInterface() {
    CSignalHandler::forget(this);
}

CCallbackBase::~CCallbackBase() = default;
