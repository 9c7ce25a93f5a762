// Replaces the allocations of this program: each is charged, and may fail on purpose.

#include "tests/sim/Memory.h"

#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    kvx::sim::Account* const account = kvx::sim::charged;
    if (account != nullptr && account->newsBeforeFailure >= 0 && account->newsBeforeFailure-- == 0)
        return nullptr;
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size) != 0) return nullptr;
    if (account != nullptr) account->bytes += static_cast<std::int64_t>(malloc_usable_size(memory));
    return memory;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void release(void* memory) noexcept {
    if (kvx::sim::charged != nullptr)
        kvx::sim::charged->bytes -= static_cast<std::int64_t>(malloc_usable_size(memory));
    std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size, alignof(std::max_align_t));
}
void operator delete(void* memory) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    release(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    release(memory);
}
