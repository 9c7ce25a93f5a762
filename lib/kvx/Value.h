#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/Export.h"

namespace kvx {

class Message;

// GCC reports names of the namespace that scoped enumerators, which need their scope, would hide.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"

/// One value of a record or a message, as a view: texts, bytes and nested messages stay where they
/// are and must outlive it.
class KVX_API Value {
  public:
    using Bytes = std::span<const std::byte>;
    enum class Kind { Null, Boolean, Integer, Real, String, Bytes, Message };

    constexpr Value() = default;
    template <std::same_as<bool> Boolean>
    constexpr Value(Boolean value) : kind_(Kind::Boolean), integer_(value ? 1 : 0) {}
    /// A number above the largest `std::int64_t` is taken for that.
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) constexpr Value(Number value)
        : kind_(Kind::Integer), integer_(clamped(value)) {}
    template <std::floating_point Number>
    constexpr Value(Number value) : kind_(Kind::Real), real_(static_cast<double>(value)) {}
    /// A null pointer gives an empty text.
    constexpr Value(const char* text) : Value(text ? std::string_view(text) : std::string_view()) {}
    constexpr Value(std::string_view text)
        : kind_(Kind::String), data_(text.data()), size_(text.size()) {}
    Value(const std::string& text) : Value(std::string_view(text)) {}
    constexpr Value(Bytes bytes) : kind_(Kind::Bytes), data_(bytes.data()), size_(bytes.size()) {}
    Value(const Message& message);
    /// A message in its buffer, whose fields start at `bytes`.
    static Value ofMessage(Bytes bytes) {
        Value value(bytes);
        value.kind_ = Kind::Message;
        return value;
    }

    /// The buffer of a message, uncopied; empty for any other kind.
    [[nodiscard]] Bytes messageBuffer() const { return kind_ == Kind::Message ? bytes() : Bytes(); }

    [[nodiscard]] constexpr Kind kind() const { return kind_; }
    [[nodiscard]] constexpr bool isNull() const { return kind_ == Kind::Null; }

    /// The value as a `T`: `bool`, any integer type, `float`, `double`, `std::string_view`,
    /// `std::string`, `Bytes` or `Message`. Nothing when it is of another kind, or a number that
    /// does not fit. Integers serve as reals and as booleans (0 and 1 only), texts that are a
    /// decimal number as numbers.
    template <class T>
    [[nodiscard]] std::optional<T> as() const;

    /// The value in words: texts as they are, bytes in lower-case hexadecimal.
    [[nodiscard]] std::string toString() const;

    /// Same kind and same value. Messages are compared by their bytes.
    KVX_API friend bool operator==(const Value& one, const Value& other);

  private:
    template <std::integral Number>
    static constexpr std::int64_t clamped(Number value) {
        constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
        if constexpr (std::is_unsigned_v<Number> && sizeof(Number) == sizeof(std::int64_t)) {
            if (value > static_cast<std::uint64_t>(kMost)) return kMost;
        }
        return static_cast<std::int64_t>(value);
    }

    [[nodiscard]] std::optional<std::int64_t> integer() const;
    [[nodiscard]] std::optional<double> real() const;
    [[nodiscard]] std::string_view text() const { return {static_cast<const char*>(data_), size_}; }
    [[nodiscard]] Bytes bytes() const { return {static_cast<const std::byte*>(data_), size_}; }

    Kind kind_ = Kind::Null;
    union {
        std::int64_t integer_ = 0;
        double real_;
        const void* data_;
    };
    std::size_t size_ = 0;  // of a text, bytes or a message
};

#pragma GCC diagnostic pop

KVX_API std::ostream& operator<<(std::ostream& out, const Value& value);

/// A name and a value, both views.
struct Field {
    std::string_view name;
    Value value;

    friend bool operator==(const Field&, const Field&) = default;
};

template <class T>
std::optional<T> Value::as() const {
    if constexpr (std::same_as<T, bool>) {
        const auto number = kind_ == Kind::Boolean ? integer_ : integer().value_or(2);
        if (number != 0 && number != 1) return std::nullopt;
        return number == 1;
    } else if constexpr (std::integral<T>) {
        const auto number = integer();
        if (!number || !std::in_range<T>(*number)) return std::nullopt;
        return static_cast<T>(*number);
    } else if constexpr (std::floating_point<T>) {
        const auto number = real();
        if (!number) return std::nullopt;
        constexpr auto kMost = std::numeric_limits<T>::max();
        const bool isFinite = *number - *number == 0;
        if (isFinite && (*number > kMost || *number < -kMost)) return std::nullopt;
        return static_cast<T>(*number);
    } else if constexpr (std::same_as<T, std::string_view> || std::same_as<T, std::string>) {
        if (kind_ != Kind::String) return std::nullopt;
        return T(text());
    } else if constexpr (std::same_as<T, Bytes>) {
        if (kind_ != Kind::Bytes) return std::nullopt;
        return bytes();
    } else {
        static_assert(std::same_as<T, Message>, "a Value is no such type");
        if (kind_ != Kind::Message) return std::nullopt;
        return T(bytes());
    }
}

}  // namespace kvx
