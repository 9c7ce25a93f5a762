// Replaces the allocations of this program: each is charged, and may fail on purpose.

#include "tests/sim/Memory.h"

#include <malloc.h>

#include <cstddef>
#include <cstdlib>
#include <new>

#include "rv/wire/Buffer.h"

namespace {

bool nextFails() noexcept {
    kvx::sim::Account* const account = kvx::sim::charged;
    return account != nullptr && account->newsBeforeFailure >= 0 &&
           account->newsBeforeFailure-- == 0;
}

void charge(std::int64_t bytes) noexcept {
    if (kvx::sim::charged != nullptr) kvx::sim::charged->bytes += bytes;
}

std::int64_t sizeOf(void* memory) noexcept {
    return static_cast<std::int64_t>(malloc_usable_size(memory));
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    void* memory = nullptr;
    if (nextFails() || posix_memalign(&memory, alignment, size) != 0) return nullptr;
    charge(sizeOf(memory));
    return memory;
}

void* resize(void* memory, std::size_t size) noexcept {
    const std::int64_t before = sizeOf(memory);
    void* const resized = nextFails() ? nullptr : std::realloc(memory, size);
    if (resized != nullptr) charge(sizeOf(resized) - before);
    return resized;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void release(void* memory) noexcept {
    charge(-sizeOf(memory));
    std::free(memory);
}

const bool kBuffersAreChargedToo = [] {
    kvx::wire::bufferMemory() = {resize, release};
    return true;
}();

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
