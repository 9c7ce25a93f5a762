#pragma once

#include <cstddef>
#include <new>

#include "platform/Export.h"

namespace kvx {

/// Gives a class its own `operator new` and `operator delete`, so that objects passed between
/// libraries are always freed by the allocator that they came from. Any thread.
class KVX_API HeapObject {
  public:
    /// Throws `std::bad_alloc` without memory; the `nothrow` form returns null.
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}

  protected:
    HeapObject() = default;
    ~HeapObject() = default;
    HeapObject(const HeapObject&) = default;
    HeapObject& operator=(const HeapObject&) = default;
};

}  // namespace kvx
