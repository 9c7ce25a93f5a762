#include "foundation/HeapObject.h"

#include <cstdlib>

namespace kvx {

void* HeapObject::operator new(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* HeapObject::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}

void HeapObject::operator delete(void* memory) noexcept {
    std::free(memory);
}

void HeapObject::operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

}  // namespace kvx
