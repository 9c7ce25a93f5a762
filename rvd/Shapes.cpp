#include "rvd/Shapes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "rv/message/WireFormat.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {
namespace {

constexpr const char* kCut = "...";
constexpr std::size_t kRecord = 3;  // bytes of a field besides its name: type, size, length of name

// Strings and other variable-length types have no size of their own.
bool hasFixedSize(rvmsg_Type type) {
    return type == RVMSG_INT || type == RVMSG_UINT || type == RVMSG_REAL || type == RVMSG_IPDATA;
}

// Messages are routed unchecked: a field of a size that its type does not have counts as opaque.
WireField soundForm(WireField field) {
    alignas(double) std::array<std::uint8_t, 12> scratch{};
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (!decodeField(field, scratch.data(), size, data)) field.type = RVMSG_OPAQUE;
    return field;
}

// As much of it as a name may have. A dot in the name of a field is part of a path.
std::string nameOf(const WireField& field) {
    if (field.nameBytes == 0) return {};
    std::string name(field.name, strnlen(field.name, kMaxNameBytes - 1));
    std::ranges::replace(name, '.', '_');
    return name;
}

// False when the field has no more room.
bool addField(std::vector<std::uint8_t>& fields, const WireField& received, std::size_t reserve) {
    const WireField field = soundForm(received);
    const std::string name = nameOf(field);
    if (fields.size() + kRecord + name.size() + reserve > Shapes::kBytes) return false;
    fields.push_back(static_cast<std::uint8_t>(field.type));
    fields.push_back(hasFixedSize(field.type) ? static_cast<std::uint8_t>(field.size) : 0);
    fields.push_back(static_cast<std::uint8_t>(name.size()));
    fields.insert(fields.end(), name.begin(), name.end());
    return true;
}

std::vector<std::uint8_t> fieldsOf(wire::Bytes message) {
    std::vector<std::uint8_t> fields;
    const auto data = findField(message, wire::field::kData);
    if (!data) return fields;
    if (data->type != RVMSG_MSG) {
        WireField unnamed = *data;
        unnamed.nameBytes = 0;
        (void)addField(fields, unnamed, 0);
        return fields;
    }
    FieldCursor cursor(data->bytes());
    for (WireField field; cursor.next(field) == FieldCursor::Step::kField;) {
        if (addField(fields, field, kRecord)) continue;
        fields.insert(fields.end(), {RVMSG_NONE, 0, 0});
        break;
    }
    return fields;
}

}  // namespace

Shapes::Id Shapes::hold(wire::Bytes message) {
    std::vector<std::uint8_t> fields = fieldsOf(message);
    Id unused = 0;
    for (std::size_t i = 0; i < kShapes; ++i) {
        Shape& shape = shapes_[i];
        const auto id = static_cast<Id>(i + 1);
        if (shape.holders == 0) {
            if (unused == 0) unused = id;
        } else if (shape.fields == fields) {
            ++shape.holders;
            return id;
        }
    }
    if (unused != 0) {
        fields.shrink_to_fit();
        shapes_[unused - 1U] = {std::move(fields), 1};
    }
    return unused;
}

void Shapes::release(Id shape) noexcept {
    if (shape == 0) return;
    Shape& held = shapes_[shape - 1U];
    if (--held.holders == 0) held.fields = std::vector<std::uint8_t>();
}

Row Shapes::example(Id shape) const {
    Row row;
    const auto& fields = shapes_[shape - 1U].fields;
    for (std::size_t at = 0; at < fields.size();) {
        const rvmsg_Type type = fields[at];
        const std::size_t size = fields[at + 1];
        const std::size_t nameSize = fields[at + 2];
        const std::string name(
            fields.begin() + static_cast<std::ptrdiff_t>(at + kRecord),
            fields.begin() + static_cast<std::ptrdiff_t>(at + kRecord + nameSize));
        if (type == RVMSG_NONE) {
            row.put("", kCut);
        } else {
            row.putEmpty(name.c_str(), type, static_cast<rvmsg_Size>(size));
        }
        at += kRecord + nameSize;
    }
    return row;
}

}  // namespace kvx::rvd
