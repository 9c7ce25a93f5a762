#pragma once

#include <cstdint>

namespace kvx::rvd {

/// The version of this program, such as "1.0.0".
[[nodiscard]] const char* version();
/// Of the state that a daemon hands over to its successor: one of another version is not
/// understood.
[[nodiscard]] std::uint64_t stateVersion();

}  // namespace kvx::rvd
