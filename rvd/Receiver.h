#pragma once

#include <cstdint>

#include "rvd/Payload.h"

namespace kvx::rvd {

/// Receives the messages that match a session, and what it is told.
class Receiver {
  public:
    virtual ~Receiver() = default;
    /// Which one it is, for reports: of all connections, in the order of accepting.
    [[nodiscard]] virtual std::uint64_t number() const { return 0; }
    virtual void deliver(const PayloadRef& message) = 0;
    /// The patterns of its session cost too much: the session must leave, though not within this
    /// call.
    virtual void dismiss() {}
    /// Its session, which follows interest, has something to be told: `Router::tell` must be called
    /// before the batch has ended, though not within this call.
    virtual void wake() noexcept {}
};

}  // namespace kvx::rvd
