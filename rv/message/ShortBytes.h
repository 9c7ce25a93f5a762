#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

namespace kvx {

/// At most 65,535 bytes: up to `kInline` of them in place, more on the heap.
template <std::size_t kInline>
class ShortBytes {
  public:
    ShortBytes() = default;
    ShortBytes(const ShortBytes&) = delete;
    ShortBytes& operator=(const ShortBytes&) = delete;
    ~ShortBytes() { clear(); }

    using Bytes = std::span<const std::uint8_t>;

    /// Becomes `first` and then `second`, neither of which may be part of this. Throws
    /// `std::bad_alloc`, with nothing changed.
    void assign(Bytes first, Bytes second = {}) {
        const std::size_t size = first.size() + second.size();
        std::uint8_t* const heap = size > kInline ? new std::uint8_t[size] : nullptr;
        clear();
        std::uint8_t* const bytes = heap != nullptr ? heap : bytes_;
        std::ranges::copy(second, std::ranges::copy(first, bytes).out);
        if (heap != nullptr) std::memcpy(bytes_, &heap, sizeof heap);
        size_ = static_cast<std::uint16_t>(size);
    }

    /// Takes the bytes of `other`, which is empty then.
    void take(ShortBytes& other) noexcept {
        clear();
        std::memcpy(bytes_, other.bytes_, sizeof bytes_);
        size_ = std::exchange(other.size_, 0);
    }

    [[nodiscard]] Bytes view() const { return {size_ > kInline ? heap() : bytes_, size_}; }

  private:
    static_assert(kInline >= sizeof(void*));

    [[nodiscard]] std::uint8_t* heap() const {
        std::uint8_t* memory;
        std::memcpy(&memory, bytes_, sizeof memory);
        return memory;
    }
    void clear() noexcept {
        if (size_ > kInline) delete[] heap();
        size_ = 0;
    }

    std::uint16_t size_ = 0;
    std::uint8_t bytes_[kInline] = {};
};

}  // namespace kvx
