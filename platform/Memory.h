#pragma once

#include "platform/Export.h"

namespace kvx::platform {

/// Makes this process keep memory that it has freed, up to some tens of MiB a thread, for its next
/// allocations. Otherwise the allocator gives freed blocks back to the system at once, and whoever
/// works in large short-lived buffers, as compression does, pays for fresh pages each time. For the
/// start of a program's `main`; does nothing where the allocator has no such setting.
KVX_API void keepFreedMemory() noexcept;

}  // namespace kvx::platform
