#include "rv/wire/Fields.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"

#include <cstring>

#include "rv/wire/Limits.h"

namespace kvx::wire {
namespace {

constexpr std::uint8_t kLargestShortSize = 0x77;
constexpr std::uint8_t kMediumSize = 0x79;
constexpr std::uint8_t kLongSize = 0x7A;

bool hasSize(std::uint32_t type) {
    switch (type) {
        case RVMSG_MSG:
        case RVMSG_SUBJECT:
        case RVMSG_DATETIME:
        case RVMSG_OPAQUE:
        case RVMSG_STRING:
        case RVMSG_BOOLEAN:
        case RVMSG_IPDATA:
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
        case RVMSG_ENCRYPTED:
            return true;
        default:
            return false;
    }
}

bool carriesOwnLength(std::uint32_t type) {
    return type == RVMSG_MSG || type == RVMSG_SUBJECT || type == RVMSG_ENCRYPTED;
}

}  // namespace

FieldCursor::FieldCursor(Bytes message) {
    if (message.size() < kFrameHeaderSize) {
        broken_ = true;
        return;
    }
    const std::uint32_t length = loadBig32(message.data());
    broken_ = length < kFrameHeaderSize || length > message.size() ||
              loadBig32(message.data() + 4) != kMessageMagic;
    if (broken_) return;
    at_ = message.data() + kFrameHeaderSize;
    end_ = message.data() + length;
}

bool FieldCursor::next(Field& field) {
    if (broken_ || at_ == end_) return false;
    broken_ = true;  // until the whole field has been seen to lie inside
    const std::size_t nameLength = *at_++;
    if (static_cast<std::size_t>(end_ - at_) < nameLength + 1) return false;
    if (nameLength > 0 && at_[nameLength - 1] != 0) return false;
    field.name = {reinterpret_cast<const char*>(at_), nameLength > 0 ? nameLength - 1 : 0};
    at_ += nameLength;
    field.type = *at_++;
    std::size_t size = 0;
    if (hasSize(field.type) && !readSize(field.type, size)) return false;
    field.data = {at_, size};
    at_ += size;
    broken_ = false;
    return true;
}

// Reads the size form and leaves `at_` at the data, which lies inside the message when this is
// true.
bool FieldCursor::readSize(std::uint32_t type, std::size_t& size) {
    const auto room = [this] { return static_cast<std::size_t>(end_ - at_); };
    if (room() < 1) return false;
    const std::uint8_t form = *at_++;
    if (form <= kLargestShortSize) {
        size = form;
        return !carriesOwnLength(type) && size <= room();
    }
    const std::size_t width = form == kMediumSize ? 2 : form == kLongSize ? 4 : 0;
    if (width == 0 || room() < width) return false;
    const std::size_t number = width == 2 ? loadBig16(at_) : loadBig32(at_);
    if (number < width || number > room()) return false;
    if (carriesOwnLength(type)) {
        size = number;
        return (width == 2) == (type == RVMSG_SUBJECT);
    }
    at_ += width;
    size = number - width;
    return true;
}

std::optional<Field> findField(Bytes message, std::string_view name) {
    FieldCursor cursor(message);
    for (Field field; cursor.next(field);) {
        if (field.name == name) return field;
    }
    return std::nullopt;
}

std::optional<std::string_view> textOf(const Field& field) {
    if (field.type != RVMSG_STRING) return std::nullopt;
    const auto* text = reinterpret_cast<const char*>(field.data.data());
    return std::string_view(text, strnlen(text, field.data.size()));
}

}  // namespace kvx::wire
