#pragma once

#include <mutex>
#include <utility>

namespace modeld {

/// Closed when the service ends: an answer is then not begun any more, since the next member
/// answers. Any thread.
class SendGate {
  public:
    /// Waits for whoever is sending.
    void close() {
        const std::lock_guard guard(mutex_);
        open_ = false;
    }

    bool isOpen() {
        const std::lock_guard guard(mutex_);
        return open_;
    }

    /// Calls `send`, unless the gate is closed; it stays as it is meanwhile.
    template <class Send>
    void pass(Send&& send) {
        const std::lock_guard guard(mutex_);
        if (open_) std::forward<Send>(send)();
    }

  private:
    std::mutex mutex_;
    bool open_ = true;  // guarded by mutex_
};

}  // namespace modeld
