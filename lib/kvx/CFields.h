#pragma once

#include <cstddef>
#include <memory_resource>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "kvx/CInterface.h"
#include "kvx/Message.h"
#include "kvx/Record.h"

/// The fields of the C interface, from and to rows and messages.
namespace kvx::detail {

/// Fields as they are passed out. One thread at a time.
class FieldList {
  public:
    /// Of a message, those of nested ones included; more are an attack on the memory.
    static constexpr std::size_t kMostFields = 65'535;

    /// Refers to the texts and bytes of `record`, which must stay until the next change.
    void set(const Record& record);

    /// Copies all that it needs. False, with no fields, for a message of too many.
    [[nodiscard]] bool set(const Message& message);

    [[nodiscard]] std::span<const kvx_field> fields() const { return fields_; }

  private:
    using Fields = std::vector<kvx_field>;

    void clear();
    [[nodiscard]] std::optional<Fields> fieldsOf(const RvMsg& message);
    [[nodiscard]] std::optional<kvx_value> copyOf(const Value& value);
    const char* copyOf(std::string_view text);

    Fields fields_;
    std::size_t left_ = kMostFields;
    std::pmr::monotonic_buffer_resource arena_;  // texts, bytes and the fields of nested messages
};

/// What a caller has passed in. `InvalidArgument` for null texts and names, unknown kinds and what
/// a row or a message cannot hold.
[[nodiscard]] Result<Record> recordOf(const kvx_field* fields, std::size_t count);
[[nodiscard]] Result<Message> messageOf(const kvx_field* fields, std::size_t count);

}  // namespace kvx::detail
