#pragma once

#include <atomic>
#include <memory>

#include "kvx/Error.h"

namespace kvx::detail {

/// The claim of a client or a service on the loop of the process; null while another holds it. Any
/// thread.
inline std::shared_ptr<const void> claimLoop() {
    static std::atomic<bool> isTaken{false};
    if (isTaken.exchange(true)) return nullptr;
    return {static_cast<const void*>(&isTaken), [](const void*) { isTaken = false; }};
}

inline Error busy() {
    return {Errc::Busy, "a process has one client or service at a time", "open"};
}

}  // namespace kvx::detail
