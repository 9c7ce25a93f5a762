#pragma once

#include <poll.h>

#include <span>

#include "platform/Clock.h"

/// What every wait of this room comes down to. Internal to the room.
namespace kvx::platform::detail {

/// The poll events that stand for the `Readiness` bits of `interest`.
[[nodiscard]] short pollEventsOf(unsigned interest) noexcept;

/// The `Readiness` bits, restricted to `interest`, that poll found in `events`.
[[nodiscard]] unsigned readinessOf(short events, unsigned interest) noexcept;

/// poll(2) with a 64-bit time-out (negative for none) that obeys a manual clock. Returns what poll
/// returns, with the reason in `errno`.
int pollFor(std::span<pollfd> entries, Milliseconds timeout) noexcept;

}  // namespace kvx::platform::detail
