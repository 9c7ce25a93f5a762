#pragma once

#include <csignal>
#include <span>

namespace kvx::platform {

/// The system's set of these signals. Any thread.
inline sigset_t maskOf(std::span<const int> signals) noexcept {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signal : signals) sigaddset(&mask, signal);
    return mask;
}

}  // namespace kvx::platform
