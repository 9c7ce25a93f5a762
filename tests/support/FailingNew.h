#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/support/FailureOfNew.h"

/// Replaces the allocations of the test program it is included in, by one file only.
namespace kvx::test {

inline void* allocateOrFail(std::size_t size, std::size_t alignment) {
    void* memory = nullptr;
    if (nextFails() || posix_memalign(&memory, alignment, size) != 0) throw std::bad_alloc();
    return memory;
}

}  // namespace kvx::test

void* operator new(std::size_t size) {
    return kvx::test::allocateOrFail(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return kvx::test::allocateOrFail(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
