#include "kvx/Message.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <utility>

#include "kvx/ZeroByte.h"
#include "platform/Memory.h"

namespace kvx {

namespace {

template <class Number>
Number loaded(const RvDatum& datum) {
    Number number{};
    std::memcpy(&number, datum.data(), sizeof number);
    return number;
}

Value integerOf(const RvDatum& datum, bool isSigned) {
    switch (datum.size()) {
        case 1:
            return isSigned ? Value(loaded<std::int8_t>(datum))
                            : Value(loaded<std::uint8_t>(datum));
        case 2:
            return isSigned ? Value(loaded<std::int16_t>(datum))
                            : Value(loaded<std::uint16_t>(datum));
        case 4:
            return isSigned ? Value(loaded<std::int32_t>(datum))
                            : Value(loaded<std::uint32_t>(datum));
        case 8:
            return isSigned ? Value(loaded<std::int64_t>(datum))
                            : Value(loaded<std::uint64_t>(datum));
        default:
            return {};
    }
}

// A view of what a datum refers to. Kinds that are none of a `Value` are shown as their bytes.
Value valueOf(const RvDatum& datum) {
    if (datum.data() == nullptr) {
        return datum.type() == RVMSG_OPAQUE ? Value(Value::Bytes()) : Value();
    }
    const Value::Bytes bytes(static_cast<const std::byte*>(datum.data()), datum.size());
    switch (datum.type()) {
        case RVMSG_MSG:
            return Value::ofMessage(bytes);
        case RVMSG_STRING: {
            const auto* text = static_cast<const char*>(datum.data());
            return Value(std::string_view(text, strnlen(text, datum.size())));
        }
        case RVMSG_BOOLEAN: {
            const auto number = integerOf(datum, true).as<std::int64_t>();
            return number ? Value(*number != 0) : Value();
        }
        case RVMSG_INT:
            return integerOf(datum, true);
        case RVMSG_UINT:
            return integerOf(datum, false);
        case RVMSG_REAL:
            return datum.size() == sizeof(float) ? Value(loaded<float>(datum))
                                                 : Value(loaded<double>(datum));
        default:
            return Value(bytes);
    }
}

}  // namespace

Message::Message(std::initializer_list<Field> fields) {
    for (const Field& field : fields) static_cast<void>(add(field.name, field.value));
}

Message::Message(Value::Bytes buffer) {
    if (rvmsg_Validate(buffer.data(), buffer.size()) != 0) return;
    message_ = RvMsg(const_cast<std::byte*>(buffer.data()));
}

Result<> Message::add(std::string_view name, const Value& value) {
    const std::string text(name);
    const auto append = [&](rvmsg_Type type, std::size_t size, const void* data) {
        if (detail::hasZero(name)) return RvStatus::message(3);
        return message_.append(text.c_str(), type, static_cast<rvmsg_Size>(size), data);
    };
    RvStatus status = RvStatus::message(3);
    if (const auto flag = value.as<bool>(); value.kind() == Value::Kind::Boolean) {
        const std::int32_t number = *flag ? 1 : 0;
        status = append(RVMSG_BOOLEAN, sizeof number, &number);
    } else if (value.kind() == Value::Kind::Integer) {
        const auto wide = *value.as<std::int64_t>();
        const auto narrow = static_cast<std::int32_t>(wide);
        status = std::in_range<std::int32_t>(wide) ? append(RVMSG_INT, sizeof narrow, &narrow)
                                                   : append(RVMSG_INT, sizeof wide, &wide);
    } else if (value.kind() == Value::Kind::Real) {
        const auto number = *value.as<double>();
        status = append(RVMSG_REAL, sizeof number, &number);
    } else if (const auto characters = value.as<std::string>()) {
        if (!detail::hasZero(*characters)) {
            status = append(RVMSG_STRING, characters->size() + 1, characters->c_str());
        }
    } else if (const auto bytes = value.as<Value::Bytes>()) {
        const void* const data = bytes->empty() ? "" : static_cast<const void*>(bytes->data());
        status = append(RVMSG_OPAQUE, bytes->size(), data);
    } else if (const auto nested = value.as<Message>()) {
        status = append(RVMSG_MSG, nested->base().size(), nested->base().data());
    }
    if (status == RvStatus(0)) return {};
    return tl::unexpected(Error{Errc::InvalidArgument, status.text(), "field " + text});
}

Value Message::operator[](std::string_view name) const {
    RvDatum datum;
    const std::string text(name);
    if (detail::hasZero(name)) return {};
    return message_.get(text.c_str(), datum) == RvStatus(0) ? valueOf(datum) : Value();
}

Message::Iterator Message::begin() const {
    return Iterator(message_);
}

bool Message::empty() const {
    return begin() == end();
}

std::string Message::toString() const {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    if (stream == nullptr) return {};
    message_.print(stream);
    std::fclose(stream);
    const Text owned(text);
    return {text, size};
}

std::ostream& operator<<(std::ostream& out, const Message& message) {
    return out << message.toString();
}

Message::Iterator::Iterator(const RvMsg& message)
    : walk_(std::make_shared<RvMsgIterator>(message)) {
    ++*this;
}

Message::Iterator& Message::Iterator::operator++() {
    const RvDatum* const datum = walk_->next();
    if (datum == nullptr) {
        walk_.reset();
    } else {
        field_ = {datum->name() != nullptr ? datum->name() : "", valueOf(*datum)};
    }
    return *this;
}

}  // namespace kvx
