#pragma once

#include <array>
#include <atomic>

#include "platform/Poll.h"
#include "rv/event/IdTable.h"
#include "rv/event/rvevm.h"

namespace kvx::event {

inline constexpr int kSignalSlots = 24;  ///< signals 0 to 23 can be registered

/// The signals of one event manager. At most one table of the process owns signals: the first one
/// to register, until it dies. Loop thread only, except the signal handler.
class SignalTable {
  public:
    /// `wakeUp` is notified by every caught signal and must outlive this object.
    explicit SignalTable(platform::WakeUp& wakeUp) : wakeUp_(wakeUp) {}
    ~SignalTable() { release(); }
    SignalTable(const SignalTable&) = delete;
    SignalTable& operator=(const SignalTable&) = delete;

    /// The operations of the event manager, with its codes.
    int add(rvevm_Id* id, int signal, rvevm_Callback callback, void* closure);
    int remove(rvevm_Id id) noexcept;
    /// Removes everything, restores the default handling and releases the ownership of signals.
    void release() noexcept;

    /// True when signals of this table wait to be dispatched.
    [[nodiscard]] bool pending() const noexcept;
    /// Calls the callbacks of pending signals, in ascending order, while `running`; the rest stays
    /// pending. `owner` is their first argument.
    void dispatch(void* owner, const std::atomic<bool>& running);

  private:
    struct Entry {
        int signal;
        rvevm_Callback callback;
        void* closure;
    };

    [[nodiscard]] bool claim() noexcept;
    [[nodiscard]] int hook(int signal, rvevm_Id id) noexcept;
    void unhook(int signal) noexcept;
    void call(void* owner, rvevm_Id id);

    platform::WakeUp& wakeUp_;
    IdTable<Entry> entries_;
    std::array<rvevm_Id, kSignalSlots> slots_{};
    bool owner_ = false;
};

}  // namespace kvx::event
