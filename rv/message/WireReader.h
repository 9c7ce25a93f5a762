#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace kvx {

/// A view of received bytes, or of bytes to send. Owns nothing.
using Bytes = std::span<const std::uint8_t>;

/// Big-endian numbers at any byte address.
inline std::uint16_t loadBig16(const void* at) {
    std::uint16_t value;
    std::memcpy(&value, at, sizeof value);
    return __builtin_bswap16(value);
}
inline std::uint32_t loadBig32(const void* at) {
    std::uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return __builtin_bswap32(value);
}
inline std::uint64_t loadBig64(const void* at) {
    std::uint64_t value;
    std::memcpy(&value, at, sizeof value);
    return __builtin_bswap64(value);
}
inline void storeBig16(void* at, std::uint16_t value) {
    value = __builtin_bswap16(value);
    std::memcpy(at, &value, sizeof value);
}
inline void storeBig32(void* at, std::uint32_t value) {
    value = __builtin_bswap32(value);
    std::memcpy(at, &value, sizeof value);
}
inline void storeBig64(void* at, std::uint64_t value) {
    value = __builtin_bswap64(value);
    std::memcpy(at, &value, sizeof value);
}

/// The offset of `at` in the `bytes` bytes at `start`; nothing when it lies elsewhere.
inline std::optional<std::size_t> offsetIn(const void* start, std::size_t bytes, const void* at) {
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(at) - reinterpret_cast<std::uintptr_t>(start);
    return offset < bytes ? std::optional<std::size_t>(offset) : std::nullopt;
}

/// A cursor over received bytes. A read past their end fails and does not move the cursor.
class WireReader {
  public:
    WireReader() = default;
    WireReader(const void* bytes, std::size_t length)
        : at_(static_cast<const std::uint8_t*>(bytes)), end_(at_ + length) {}

    const std::uint8_t* position() const { return at_; }
    const std::uint8_t* end() const { return end_; }
    std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

    /// Sets `start` to the next `count` bytes and steps over them.
    [[nodiscard]] bool take(std::size_t count, const std::uint8_t*& start) {
        if (count > left()) return false;
        start = at_;
        at_ += count;
        return true;
    }
    [[nodiscard]] bool skip(std::size_t count) {
        if (count > left()) return false;
        at_ += count;
        return true;
    }
    [[nodiscard]] bool u8(std::uint8_t& value) {
        if (at_ == end_) return false;
        value = *at_++;
        return true;
    }
    [[nodiscard]] bool u16(std::uint16_t& value) {
        if (left() < sizeof value) return false;
        value = loadBig16(at_);
        at_ += sizeof value;
        return true;
    }
    [[nodiscard]] bool u32(std::uint32_t& value) {
        if (left() < sizeof value) return false;
        value = loadBig32(at_);
        at_ += sizeof value;
        return true;
    }
    /// The number that `u16` would read next, without a step.
    [[nodiscard]] bool peek16(std::uint16_t& value) const { return WireReader(*this).u16(value); }
    [[nodiscard]] bool peek32(std::uint32_t& value) const { return WireReader(*this).u32(value); }

  private:
    const std::uint8_t* at_ = nullptr;
    const std::uint8_t* end_ = nullptr;
};

}  // namespace kvx
