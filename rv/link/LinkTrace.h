#pragma once

#include "platform/Export.h"

namespace kvx::link {

/// Names the variable that says how much the bus library traces to standard error; null is silence.
/// The variable must stay valid. Any thread.
KVX_API void setTraceLevel(const int* level) noexcept;

/// True when the present level is at least `threshold`. Any thread.
[[nodiscard]] bool tracesAt(int threshold) noexcept;

}  // namespace kvx::link
