#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "rv/wire/Limits.h"

namespace kvx::wire {

/// Where all buffers get their memory, as `std::realloc` and `std::free` give it. A program that
/// replaces these does so before its first buffer.
struct BufferMemory {
    void* (*resize)(void*, std::size_t) = std::realloc;
    void (*release)(void*) = std::free;
};
BufferMemory& bufferMemory();

/// Bytes in one block that grows at its end. The allocator of the system grows large blocks by
/// moving their pages, not by copying them, so that no step takes long.
class Buffer {
  public:
    Buffer() = default;
    /// A copy. Throws `std::bad_alloc`.
    explicit Buffer(Bytes bytes) {
        reserve(bytes.size());
        append(bytes);
    }
    Buffer(Buffer&& other) noexcept { *this = std::move(other); }
    Buffer& operator=(Buffer&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        return *this;
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { bufferMemory().release(data_); }

    [[nodiscard]] Bytes view() const { return {data_, size_}; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool empty() const { return size_ == 0; }
    /// Bytes of memory.
    [[nodiscard]] std::size_t capacity() const { return capacity_; }

    /// Makes room for `capacity` bytes in all. Throws `std::bad_alloc` and changes nothing.
    void reserve(std::size_t capacity);
    /// There must be room.
    void append(Bytes bytes);

  private:
    std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace kvx::wire
