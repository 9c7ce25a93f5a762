#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "rv/wire/Bytes.h"

namespace kvx::wire {

/// One field as it lies in a message. `name` is without its terminator; `data` is in wire form, and
/// for nested messages, sealed blocks and subjects it begins with their own length.
struct Field {
    std::string_view name;
    std::uint32_t type = 0;
    Bytes data;
};

/// Walks the fields of one message and cannot step past its end, whatever the bytes are.
class FieldCursor {
  public:
    /// `message` begins with its 8-byte header; fields behind its length word are not visited.
    explicit FieldCursor(Bytes message);

    /// Gives the next field. False at the end and at the first field that does not lie inside the
    /// message; `broken` tells the two apart.
    [[nodiscard]] bool next(Field& field);

    [[nodiscard]] bool broken() const { return broken_; }

  private:
    [[nodiscard]] bool readSize(std::uint32_t type, std::size_t& size);

    const std::uint8_t* at_ = nullptr;
    const std::uint8_t* end_ = nullptr;
    bool broken_ = false;
};

/// The first field of that name; nothing when there is none.
[[nodiscard]] std::optional<Field> findField(Bytes message, std::string_view name);

/// The text of a string field up to its terminator; nothing for another type.
[[nodiscard]] std::optional<std::string_view> textOf(const Field& field);

}  // namespace kvx::wire
