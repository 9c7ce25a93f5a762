#pragma once

#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kvx/Error.h"
#include "kvx/Value.h"
#include "platform/Export.h"
#include "rv/rv.h"

namespace kvx {

/// A message of the bus: named fields in order. Owns its bytes. One thread at a time.
class KVX_API Message {
  public:
    Message() = default;
    /// Fields that a message cannot hold (no value; a name with a full stop or of more than 99
    /// characters) are left out; `set` says so.
    Message(std::initializer_list<Field> fields);
    explicit Message(const RvMsg& message) : message_(message) {}
    /// A copy of the message in a buffer; empty when the bytes are none.
    explicit Message(Value::Bytes buffer);

    /// Appends a field; one of the same name that is there stays in front of it. `InvalidArgument`
    /// for what a message cannot hold.
    Result<> add(std::string_view name, const Value& value);

    /// The first field of that name; no value when there is none. A dotted
    /// path finds a field of a nested message. Valid until the message changes.
    [[nodiscard]] Value operator[](std::string_view name) const;

    template <class T>
    [[nodiscard]] std::optional<T> get(std::string_view name) const {
        return (*this)[name].template as<T>();
    }

    class Iterator;
    [[nodiscard]] Iterator begin() const;
    [[nodiscard]] std::default_sentinel_t end() const { return {}; }
    [[nodiscard]] bool empty() const;

    /// `{ name="core-1" mtu=1500}`, as `kvx listen` shows it.
    [[nodiscard]] std::string toString() const;

    [[nodiscard]] const RvMsg& base() const { return message_; }

    /// The same fields in the same order.
    friend bool operator==(const Message& one, const Message& other) {
        return one.message_ == other.message_;
    }

  private:
    RvMsg message_;
};

/// Walks the fields; what it gives is valid until the next step.
class KVX_API Message::Iterator {
  public:
    using value_type = Field;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    explicit Iterator(const RvMsg& message);

    const Field& operator*() const { return field_; }
    const Field* operator->() const { return &field_; }
    Iterator& operator++();
    void operator++(int) { ++*this; }
    friend bool operator==(const Iterator& at, std::default_sentinel_t) { return !at.walk_; }

  private:
    std::shared_ptr<RvMsgIterator> walk_;  // null at the end
    Field field_;
};

KVX_API std::ostream& operator<<(std::ostream& out, const Message& message);

}  // namespace kvx
