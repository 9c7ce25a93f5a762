// Signals turned into events.
//
// The handler may interrupt any thread at any instruction, so it uses only lock-free flags in
// static storage and the owner's wake-up. It counts entries and exits: an owner that is destroyed
// first unpublishes its wake-up and then waits until no handler is inside.
//
// The flags are process-wide, like signals; only the table that owns the signals reads them.

#include "rv/event/SignalTable.h"

#include <algorithm>

#include "platform/Signals.h"
#include "rv/error/rvCodes.h"
#include "rv/event/EventManagerExtras.h"

namespace kvx::event {

namespace {

constexpr int kDispatchedSignals = 23;  // signals 0 to 22 are dispatched

struct CaughtSignals {
    std::atomic<const SignalTable*> owner = nullptr;
    std::atomic<platform::WakeUp*> wakeUp = nullptr;
    std::atomic<int> handlersRunning = 0;
    std::atomic<bool> anyPending = false;
    std::array<std::atomic<bool>, kSignalSlots> registered{};
    std::array<std::atomic<bool>, kSignalSlots> pending{};
};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
              std::atomic<platform::WakeUp*>::is_always_lock_free);

CaughtSignals caughtSignals;

void onSignal(int signal) {
    CaughtSignals& caught = caughtSignals;
    ++caught.handlersRunning;
    const auto slot = static_cast<std::size_t>(signal);
    platform::WakeUp* wakeUp = caught.wakeUp;
    if (wakeUp != nullptr && caught.registered[slot]) {
        caught.pending[slot] = true;
        caught.anyPending = true;
        wakeUp->notify();
    }
    --caught.handlersRunning;
}

// After a dispatch that ended early: the rest stays pending.
void keepPending() noexcept {
    const auto& pending = caughtSignals.pending;
    const bool left = std::any_of(pending.begin(), pending.begin() + kDispatchedSignals,
                                  [](const auto& flag) { return flag.load(); });
    if (left) caughtSignals.anyPending = true;
}

}  // namespace

bool SignalTable::claim() noexcept {
    if (owner_) return true;
    const SignalTable* nobody = nullptr;
    owner_ = caughtSignals.owner.compare_exchange_strong(nobody, this);
    if (owner_) caughtSignals.wakeUp = &wakeUp_;
    return owner_;
}

int SignalTable::add(rvevm_Id* id, int signal, rvevm_Callback callback, void* closure) {
    if (id == nullptr) return event_code::kInvalidId;
    if (signal < 0 || signal >= kSignalSlots || slots_[static_cast<std::size_t>(signal)]) {
        return event_code::kInvalidSignal;
    }
    if (callback == nullptr) return event_code::kInvalidCallback;
    const bool ownedBefore = owner_;
    if (!claim()) return event_code::kNotSupported;
    rvevm_Id added = entries_.add({signal, callback, closure});
    const int code = added == nullptr ? event_code::kResourcesExceeded : hook(signal, added);
    if (code == event_code::kOk) {
        *id = added;
    } else {
        entries_.remove(added);
        if (!ownedBefore) release();
    }
    return code;
}

int SignalTable::hook(int signal, rvevm_Id id) noexcept {
    const auto slot = static_cast<std::size_t>(signal);
    caughtSignals.registered[slot] = true;
    if (!platform::installSignalHandler(signal, onSignal)) {
        caughtSignals.registered[slot] = false;
        return event_code::kNotSupported;
    }
    slots_[slot] = id;
    return event_code::kOk;
}

void SignalTable::unhook(int signal) noexcept {
    const auto slot = static_cast<std::size_t>(signal);
    platform::restoreDefaultSignal(signal);
    caughtSignals.registered[slot] = false;
    caughtSignals.pending[slot] = false;
    slots_[slot] = nullptr;
}

int SignalTable::remove(rvevm_Id id) noexcept {
    const Entry* entry = entries_.find(id);
    if (entry == nullptr) return event_code::kInvalidId;
    unhook(entry->signal);
    entries_.remove(id);
    return event_code::kOk;
}

void SignalTable::release() noexcept {
    if (!owner_) return;
    for (int signal = 0; signal < kSignalSlots; ++signal) {
        rvevm_Id id = slots_[static_cast<std::size_t>(signal)];
        if (id == nullptr) continue;
        unhook(signal);
        entries_.remove(id);
    }
    caughtSignals.wakeUp = nullptr;
    while (caughtSignals.handlersRunning != 0) {
    }
    caughtSignals.anyPending = false;
    owner_ = false;
    caughtSignals.owner = nullptr;
}

bool SignalTable::pending() const noexcept {
    return owner_ && caughtSignals.anyPending;
}

void SignalTable::dispatch(void* owner, const std::atomic<bool>& running) {
    if (!pending()) return;
    caughtSignals.anyPending = false;
    for (std::size_t slot = 0; slot < kDispatchedSignals && running; ++slot) {
        if (caughtSignals.pending[slot].exchange(false)) call(owner, slots_[slot]);
    }
    if (!running && owner_) keepPending();
}

void SignalTable::call(void* owner, rvevm_Id id) {
    const Entry* entry = entries_.find(id);
    if (entry == nullptr) return;
    const Entry called = *entry;
    called.callback(owner, called.closure, kSignalEvent, id);
}

}  // namespace kvx::event
