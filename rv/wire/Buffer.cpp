#include "rv/wire/Buffer.h"

#include <cstring>
#include <new>

namespace kvx::wire {

BufferMemory& bufferMemory() {
    static BufferMemory memory;
    return memory;
}

void Buffer::reserve(std::size_t capacity) {
    if (capacity <= capacity_) return;
    void* const block = bufferMemory().resize(data_, capacity);
    if (block == nullptr) throw std::bad_alloc();
    data_ = static_cast<std::uint8_t*>(block);
    capacity_ = capacity;
}

void Buffer::append(Bytes bytes) {
    if (bytes.empty()) return;
    std::memcpy(data_ + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
}

}  // namespace kvx::wire
