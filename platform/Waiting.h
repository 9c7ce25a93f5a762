#pragma once

#include <poll.h>

#include <span>

#include "platform/Clock.h"

/// The one wait that all waits of this room use. Internal to the room.
namespace kvx::platform::detail {

/// The poll events that stand for the `Readiness` bits of `interest`.
[[nodiscard]] short pollEventsOf(unsigned interest) noexcept;

/// The `Readiness` bits, restricted to `interest`, that poll found in `events`.
[[nodiscard]] unsigned readinessOf(short events, unsigned interest) noexcept;

/// poll(2) with a 64-bit time-out (negative for none) that follows a manual clock. Returns what
/// poll returns, with the error in `errno`.
int pollFor(std::span<pollfd> entries, Milliseconds timeout) noexcept;

}  // namespace kvx::platform::detail
