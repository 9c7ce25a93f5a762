#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Export.h"

namespace kvx {

/// Deletes with `free`.
struct FreeDeleter {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// An owned, zero-terminated text from `malloc`, or null.
using Text = std::unique_ptr<char, FreeDeleter>;

/// A copy of `text`; null for null, and without memory.
inline Text copyText(const char* text) {
    return Text(text != nullptr ? strdup(text) : nullptr);
}

namespace platform {

/// Makes this process keep freed memory, up to some tens of MiB a thread, for later allocations.
/// Otherwise the allocator returns large freed blocks to the system at once, and code with large
/// short-lived buffers, such as compression, pays for fresh pages each time. Call it at the start
/// of `main`; does nothing where the allocator has no such setting.
KVX_API void keepFreedMemory() noexcept;

}  // namespace platform

}  // namespace kvx
