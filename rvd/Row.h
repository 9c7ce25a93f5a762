#pragma once

#include <cstdint>
#include <string_view>

#include "rv/message/RvMsg.h"
#include "rv/message/SubjectView.h"

namespace kvx::rvd {

/// Fields of a report, or of one row of it: a message under construction. Every function throws
/// `std::bad_alloc` without memory; the row is useless then.
class Row {
  public:
    explicit Row(std::size_t capacity = kCapacity);

    /// Unsigned, 8 bytes.
    void put(const char* name, std::uint64_t number);
    void put(const char* name, double number);
    void put(const char* name, bool value);
    void put(const char* name, std::string_view text);
    void put(const char* name, const char* text) { put(name, std::string_view(text)); }
    void put(const char* name, SubjectView subject);
    void put(const char* name, const Row& row);
    /// A value of 0 or "nothing" of that type; `size` is that of a number.
    void putEmpty(const char* name, rvmsg_Type type, rvmsg_Size size);

    [[nodiscard]] std::size_t size() const { return message_.size(); }
    [[nodiscard]] const void* data() const { return message_.data(); }

  private:
    static constexpr std::size_t kCapacity = 1'024;  // bytes; it grows

    RvMsg message_;
};

}  // namespace kvx::rvd
