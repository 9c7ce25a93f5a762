#pragma once

#include <span>

#include "platform/Clock.h"
#include "platform/Socket.h"
#include "rv/wire/Limits.h"

/// Blocking exchanges of small blocks during connection setup. The socket may be blocking or not.
namespace kvx::link {

/// A point in time for a whole exchange; may be "never".
class Deadline {
  public:
    static Deadline in(platform::Milliseconds timeout);
    /// Milliseconds left, 0 once it has passed, `kForever` for "never".
    [[nodiscard]] platform::Milliseconds left() const;
    [[nodiscard]] bool passed() const { return left() == 0; }

  private:
    platform::Milliseconds at_ = platform::kForever;
};

/// Waits until the socket is ready for `interest`; false when the deadline passes first or on a
/// socket error. Interruptions are retried.
[[nodiscard]] bool waitUntil(platform::SocketHandle socket, unsigned interest,
                             const Deadline& deadline) noexcept;

/// Fills `out`, or writes all of `bytes`; false at the deadline, at the peer's end and on any
/// error.
[[nodiscard]] bool readExactly(platform::SocketHandle socket, std::span<std::uint8_t> out,
                               const Deadline& deadline) noexcept;
[[nodiscard]] bool writeExactly(platform::SocketHandle socket, wire::Bytes bytes,
                                const Deadline& deadline) noexcept;

}  // namespace kvx::link
