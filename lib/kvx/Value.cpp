#include "kvx/Value.h"

#include <array>
#include <charconv>
#include <ostream>

#include "kvx/Message.h"

namespace kvx {

namespace {

template <class Number>
std::optional<Number> parsed(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::string shortest(double number) {
    std::array<char, 32> buffer{};
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number).ptr;
    return {buffer.data(), end};
}

std::string hexadecimal(Value::Bytes bytes) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4U];
        text += kDigits[std::to_integer<unsigned>(byte) & 15U];
    }
    return text;
}

}  // namespace

Value::Value(const Message& message)
    : kind_(Kind::Message), data_(message.base().data()), size_(message.base().size()) {}

std::optional<std::int64_t> Value::integer() const {
    switch (kind_) {
        case Kind::Boolean:
        case Kind::Integer:
            return integer_;
        case Kind::String:
            return parsed<std::int64_t>(text());
        default:
            return std::nullopt;
    }
}

std::optional<double> Value::real() const {
    switch (kind_) {
        case Kind::Real:
            return real_;
        case Kind::Integer:
            return static_cast<double>(integer_);
        case Kind::String:
            return parsed<double>(text());
        default:
            return std::nullopt;
    }
}

std::string Value::toString() const {
    switch (kind_) {
        case Kind::Null:
            return {};
        case Kind::Boolean:
            return integer_ != 0 ? "true" : "false";
        case Kind::Integer:
            return std::to_string(integer_);
        case Kind::Real:
            return shortest(real_);
        case Kind::String:
            return std::string(text());
        case Kind::Bytes:
            return hexadecimal(bytes());
        case Kind::Message:
            return Message(bytes()).toString();
    }
    return {};
}

bool operator==(const Value& one, const Value& other) {
    if (one.kind_ != other.kind_) return false;
    switch (one.kind_) {
        case Value::Kind::Null:
            return true;
        case Value::Kind::Boolean:
        case Value::Kind::Integer:
            return one.integer_ == other.integer_;
        case Value::Kind::Real:
            return one.real_ == other.real_;
        case Value::Kind::String:
        case Value::Kind::Bytes:
        case Value::Kind::Message:
            return one.text() == other.text();
    }
    return false;
}

std::ostream& operator<<(std::ostream& out, const Value& value) {
    return out << value.toString();
}

}  // namespace kvx
