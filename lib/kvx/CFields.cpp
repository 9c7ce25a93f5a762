#include "kvx/CFields.h"

#include <algorithm>
#include <string>

namespace kvx::detail {

namespace {

constexpr int kMostNesting = 32;  // of a message

kvx_value integerOf(kvx_kind kind, std::int64_t integer) {
    kvx_value value{};
    value.kind = kind;
    value.as.integer = integer;
    return value;
}

kvx_value textOf(const char* text, std::size_t size) {
    kvx_value value{};
    value.kind = KVX_TEXT;
    value.size = size;
    value.as.text = text;
    return value;
}

kvx_value bytesOf(const void* bytes, std::size_t size) {
    kvx_value value{};
    value.kind = KVX_BYTES;
    value.size = size;
    value.as.bytes = bytes;
    return value;
}

// Texts and bytes stay where they are. A nested message is no value of its own.
kvx_value viewOf(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::Boolean:
            return integerOf(KVX_BOOLEAN, *value.as<bool>() ? 1 : 0);
        case Value::Kind::Integer:
            return integerOf(KVX_INTEGER, *value.as<std::int64_t>());
        case Value::Kind::Real: {
            kvx_value real{};
            real.kind = KVX_REAL;
            real.as.real = *value.as<double>();
            return real;
        }
        case Value::Kind::String: {
            const auto text = *value.as<std::string_view>();
            return textOf(text.data(), text.size());
        }
        case Value::Kind::Bytes: {
            const auto bytes = *value.as<Value::Bytes>();
            return bytesOf(bytes.data(), bytes.size());
        }
        case Value::Kind::Null:
        case Value::Kind::Message:
            break;
    }
    return {};
}

Result<Message> messageOf(const kvx_field* fields, std::size_t count, int nesting);

tl::unexpected<Error> refused(const char* what, const char* name) {
    return tl::unexpected(
        Error{Errc::InvalidArgument, what, name != nullptr ? std::string("field ") + name : ""});
}

// `nested` gets the message to which the value refers.
Result<Value> valueOf(const kvx_field& field, Message& nested, int nesting) {
    const kvx_value& value = field.value;
    switch (value.kind) {
        case KVX_NULL:
            return Value();
        case KVX_BOOLEAN:
            return Value(value.as.integer != 0);
        case KVX_INTEGER:
            return Value(value.as.integer);
        case KVX_REAL:
            return Value(value.as.real);
        case KVX_TEXT:
            if (value.as.text == nullptr) return refused("a null text", field.name);
            return Value(value.as.text);
        case KVX_BYTES:
            if (value.as.bytes == nullptr && value.size > 0) break;
            return Value(Value::Bytes(static_cast<const std::byte*>(value.as.bytes), value.size));
        case KVX_MESSAGE: {
            auto message = messageOf(value.as.fields, value.size, nesting + 1);
            if (!message) return tl::unexpected(std::move(message.error()));
            nested = std::move(*message);
            return Value(nested);
        }
        default:
            return refused("an unknown kind", field.name);
    }
    return refused("null bytes", field.name);
}

// Calls `add(name, value)`, which gives a result, with each field.
template <class Add>
Result<> addEach(const kvx_field* fields, std::size_t count, int nesting, Add add) {
    if (fields == nullptr && count > 0) return refused("null fields", nullptr);
    if (nesting > kMostNesting) return refused("messages nested too deep", nullptr);
    for (const kvx_field& field : std::span(fields, count)) {
        if (field.name == nullptr) return refused("a null name", nullptr);
        Message nested;
        const auto value = valueOf(field, nested, nesting);
        if (!value) return tl::unexpected(value.error());
        if (auto added = add(field.name, *value); !added) return added;
    }
    return {};
}

Result<Message> messageOf(const kvx_field* fields, std::size_t count, int nesting) {
    Message message;
    auto added = addEach(fields, count, nesting, [&](const char* name, const Value& value) {
        return message.add(name, value);
    });
    if (!added) return tl::unexpected(std::move(added.error()));
    return message;
}

}  // namespace

void FieldList::clear() {
    fields_.clear();
    arena_.release();
    left_ = kMostFields;
}

void FieldList::set(const Record& record) {
    clear();
    fields_.reserve(record.size());
    // A record's names and texts end with a zero byte.
    for (const Field& field : record) fields_.push_back({field.name.data(), viewOf(field.value)});
}

bool FieldList::set(const Message& message) {
    clear();
    auto fields = fieldsOf(message.base());
    if (fields) fields_ = std::move(*fields);
    return fields.has_value();
}

// A received message nests at most 32 deep.
std::optional<FieldList::Fields> FieldList::fieldsOf(const RvMsg& message) {
    Fields fields;
    for (Message::Iterator field(message); field != std::default_sentinel; ++field) {
        if (left_-- == 0) return std::nullopt;
        const auto value = copyOf(field->value);
        if (!value) return std::nullopt;
        fields.push_back({copyOf(field->name), *value});
    }
    return fields;
}

std::optional<kvx_value> FieldList::copyOf(const Value& value) {
    kvx_value view = viewOf(value);
    if (view.kind == KVX_TEXT) {
        view.as.text = copyOf(std::string_view(view.as.text, view.size));
    } else if (view.kind == KVX_BYTES) {
        view.as.bytes = copyOf({static_cast<const char*>(view.as.bytes), view.size});
    } else if (const auto buffer = value.messageBuffer(); !buffer.empty()) {
        const RvMsg borrowed(const_cast<std::byte*>(buffer.data()));
        const auto nested = fieldsOf(borrowed);
        if (!nested) return std::nullopt;
        std::pmr::polymorphic_allocator<kvx_field> allocator(&arena_);
        kvx_field* const kept = allocator.allocate(nested->size());
        std::ranges::copy(*nested, kept);
        view.kind = KVX_MESSAGE;
        view.size = nested->size();
        view.as.fields = kept;
    }
    return view;
}

const char* FieldList::copyOf(std::string_view text) {
    std::pmr::polymorphic_allocator<char> allocator(&arena_);
    char* const kept = allocator.allocate(text.size() + 1);
    std::ranges::copy(text, kept);
    kept[text.size()] = '\0';
    return kept;
}

Result<Record> recordOf(const kvx_field* fields, std::size_t count) {
    Record record;
    auto added = addEach(fields, count, 0, [&](const char* name, const Value& value) {
        return record.set(name, value);
    });
    if (!added) return tl::unexpected(std::move(added.error()));
    return record;
}

Result<Message> messageOf(const kvx_field* fields, std::size_t count) {
    return messageOf(fields, count, 0);
}

}  // namespace kvx::detail
