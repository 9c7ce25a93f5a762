#pragma once

#include <memory>
#include <vector>

#include "platform/Export.h"
#include "platform/Socket.h"

namespace kvx::platform {

/// Ends a wait of a `PollSet` from another thread or from a signal handler.
class KVX_API WakeUp {
  public:
    WakeUp() noexcept;
    ~WakeUp();
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// False when the system had no descriptor left.
    [[nodiscard]] bool valid() const noexcept { return descriptor_ >= 0; }
    /// Ends the current wait, or the next one if none is running. Any thread; safe in a signal
    /// handler; preserves `errno`.
    void notify() const noexcept;
    /// Clears the notifications so far. The waiting thread only.
    void drain() const noexcept;
    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }

  private:
    int descriptor_;
};

/// The sockets that one thread waits for, and the conditions on each.
///
/// A wait passes the sorted set to the system as it is and allocates nothing. Any descriptor number
/// works. One thread at a time.
class KVX_API PollSet {
  public:
    /// One watched socket: the interest, and the result of the last wait.
    struct Slot {
        SocketHandle socket;
        unsigned ready;  ///< `Readiness` bits, restricted to what is watched
    };

    /// `wakeUp`, when not null, ends waits and must outlive this object.
    explicit PollSet(WakeUp* wakeUp = nullptr);
    ~PollSet();
    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;

    /// Adds `interest` to what `socket` is watched for. False without memory.
    [[nodiscard]] bool add(SocketHandle socket, unsigned interest) noexcept;
    /// Stops watching `socket` for `interest`; removes the socket when no interest is left.
    void remove(SocketHandle socket, unsigned interest) noexcept;
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }
    [[nodiscard]] std::size_t size() const noexcept;

    /// Waits for at most `timeout` (`kForever` for no limit, 0 to poll) until a socket is ready or
    /// the wake-up is notified, and drains the wake-up. Returns 0 or a socket error number:
    /// `kInterrupted`; `kNotASocket` when a watched descriptor has been closed (the readiness of
    /// the other sockets is valid).
    int wait(Milliseconds timeout) noexcept;

    /// The number of sockets that the last wait found ready.
    [[nodiscard]] std::size_t readyCount() const noexcept { return readyCount_; }
    /// The `i`th watched socket in ascending order, `i` below `size()`.
    [[nodiscard]] Slot slot(std::size_t i) const noexcept;

  private:
    struct Entries;
    std::unique_ptr<Entries> entries_;
    WakeUp* wakeUp_;
    std::size_t readyCount_ = 0;
};

}  // namespace kvx::platform
