#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Export.h"

namespace kvx {

/// Gives back what `malloc` gave.
struct FreeDeleter {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// An owned, zero-terminated text of `malloc`; null means that there is none.
using Text = std::unique_ptr<char, FreeDeleter>;

/// A copy of `text`; null for null, and without memory.
inline Text copyText(const char* text) {
    return Text(text != nullptr ? strdup(text) : nullptr);
}

namespace platform {

/// Makes this process keep memory that it has freed, up to some tens of MiB a thread, for its next
/// allocations. Otherwise the allocator gives freed blocks back to the system at once, and whoever
/// works in large short-lived buffers, as compression does, pays for fresh pages each time. For the
/// start of a program's `main`; does nothing where the allocator has no such setting.
KVX_API void keepFreedMemory() noexcept;

}  // namespace platform

}  // namespace kvx
