#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "rv/wire/Limits.h"
#include "rvd/Row.h"

namespace kvx::rvd {

/// The shapes of messages: the names and types of the fields of their payload, in order.
///
/// A shape exists once, however many subjects have seen it, and at most `kShapes` of them exist.
/// Loop thread only.
class Shapes {
  public:
    using Id = std::uint16_t;  // 0: none

    static constexpr std::size_t kShapes = 160;
    static constexpr std::size_t kBytes = 1'000;  ///< of one shape: later fields are not kept

    /// The shape of a data message, which the caller holds until `release`. 0 when there is no room
    /// for another one. Throws `std::bad_alloc` and changes nothing.
    [[nodiscard]] Id hold(wire::Bytes message);
    void release(Id shape) noexcept;

    /// A message with fields of these names and types, their values 0 or empty, and before them the
    /// unnamed texts "..." when not all are kept. A payload that is not a nested message is one
    /// field without a name; a field that the format does not allow is opaque, its name cut, a dot
    /// in a name "_". Throws `std::bad_alloc`.
    [[nodiscard]] Row example(Id shape) const;

  private:
    struct Shape {
        std::vector<std::uint8_t> fields;  // for each its type, size and name
        std::uint32_t holders = 0;         // 0: the place is free
    };

    std::array<Shape, kShapes> shapes_;
};

}  // namespace kvx::rvd
