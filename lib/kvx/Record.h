#pragma once

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/foundation.h"
#include "kvx/Error.h"
#include "kvx/Value.h"
#include "platform/Export.h"

namespace kvx {

/// A row: named texts, integers and byte strings, each name once, in the order of adding. Owns its
/// values. Copies are deep. One thread at a time.
class KVX_API Record {
  public:
    Record() = default;
    /// Fields that a record cannot hold are left out; `set` says so.
    Record(std::initializer_list<Field> fields);
    /// Takes the record over; null makes an empty one.
    explicit Record(std::unique_ptr<CVekBaseRecord> base) : base_(std::move(base)) {}
    Record(const Record& other);
    Record& operator=(const Record& other);
    Record(Record&&) noexcept = default;
    Record& operator=(Record&&) noexcept = default;
    ~Record() = default;

    /// Adds the field, or gives it a new value at its place. A real becomes the shortest text that
    /// reads back as the same number, a boolean 0 or 1. `InvalidArgument` for no value, a message,
    /// and a name or text with a zero byte.
    Result<> set(std::string_view name, const Value& value);

    /// The value of the field; none when there is no such field. Valid until the record changes.
    [[nodiscard]] Value operator[](std::string_view name) const;
    [[nodiscard]] bool contains(std::string_view name) const;

    template <class T>
    [[nodiscard]] std::optional<T> get(std::string_view name) const {
        return (*this)[name].template as<T>();
    }

    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(base().RRSize()); }
    [[nodiscard]] bool empty() const { return size() == 0; }
    /// The field at a place below `size()`.
    [[nodiscard]] Field at(std::size_t place) const;

    class Iterator;
    [[nodiscard]] Iterator begin() const;
    [[nodiscard]] Iterator end() const;

    /// `name="core-1" mtu=1500`
    [[nodiscard]] std::string toString() const;

    [[nodiscard]] const CVekBaseRecord& base() const;

    /// What `ROMDecode` makes of the bytes; nothing when they are no record.
    [[nodiscard]] static std::optional<Record> decode(std::span<const std::byte> bytes);

    /// The same fields in the same order.
    KVX_API friend bool operator==(const Record& one, const Record& other);

  private:
    std::unique_ptr<CVekBaseRecord> base_;  // null while there is no field
};

class Record::Iterator {
  public:
    using value_type = Field;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    Iterator(const Record& record, std::size_t place) : record_(&record), place_(place) {}

    Field operator*() const { return record_->at(place_); }
    Iterator& operator++() {
        ++place_;
        return *this;
    }
    Iterator operator++(int) { return {*record_, place_++}; }
    friend bool operator==(const Iterator&, const Iterator&) = default;

  private:
    const Record* record_ = nullptr;
    std::size_t place_ = 0;
};

inline Record::Iterator Record::begin() const {
    return {*this, 0};
}

inline Record::Iterator Record::end() const {
    return {*this, size()};
}

KVX_API std::ostream& operator<<(std::ostream& out, const Record& record);

}  // namespace kvx
