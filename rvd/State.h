#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "rv/wire/Limits.h"
#include "rvd/Payload.h"

namespace kvx::rvd {

/// The state of a daemon cannot be written, or read.
class StateError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Writes the state of a daemon for the one that takes its place: numbers and bytes, in an order
/// that `StateReader` knows. A message that several queues hold is written once. Every function
/// throws `StateError` or `std::bad_alloc`.
class StateWriter {
  public:
    /// `file` is one in memory; it must outlive this object.
    explicit StateWriter(int file) : file_(file) {}

    void number(std::uint64_t value);
    void boolean(bool value) { number(value ? 1 : 0); }
    void bytes(wire::Bytes value);
    void text(std::string_view value);
    void payload(const PayloadRef& message);

    /// Writes what is in the buffer. Comes last.
    void flush();

  private:
    void append(const void* data, std::size_t size);

    const int file_;
    std::vector<std::uint8_t> buffer_;
    std::unordered_map<const Payload*, std::uint64_t> written_;
};

/// Reads what a `StateWriter` has written. Every function throws `StateError` at the end of the
/// bytes, which must outlive this object, and `std::bad_alloc`.
class StateReader {
  public:
    explicit StateReader(wire::Bytes bytes) : left_(bytes) {}

    [[nodiscard]] std::uint64_t number();
    [[nodiscard]] bool boolean() { return number() != 0; }
    template <class Number>
    void into(Number& value) {
        value = static_cast<Number>(number());
    }
    /// A view of the state.
    [[nodiscard]] wire::Bytes bytes();
    [[nodiscard]] std::string_view text();
    [[nodiscard]] PayloadRef payload();
    [[nodiscard]] bool isAtEnd() const { return left_.empty(); }

  private:
    wire::Bytes left_;
    std::vector<PayloadRef> payloads_;
};

}  // namespace kvx::rvd
