#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

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

/// The opposite, for a process whose memory others need too: large blocks go back to the system as
/// soon as they are freed. Call it at the start of `main`.
KVX_API void returnLargeBlocks() noexcept;

/// Returns to the system what is free inside the allocator; takes milliseconds a GiB.
KVX_API void returnFreedMemory() noexcept;

/// The bytes of memory that this process may use: the least of the machine's, the limits of its
/// control group and of those above it (versions 1 and 2), and its own of address space. 0 when
/// unknown.
[[nodiscard]] KVX_API std::uint64_t availableMemoryBytes();

/// The control groups' part of that. `membership` is as in "/proc/self/cgroup", `root` where the
/// groups are mounted. 0 without a limit.
[[nodiscard]] KVX_API std::uint64_t groupMemoryLimit(const std::string& membership,
                                                     const std::string& root);

}  // namespace platform

}  // namespace kvx
