#pragma once

namespace kvx::rvd {

/// The version of this program, such as "1.0.0".
[[nodiscard]] const char* version();

}  // namespace kvx::rvd
