// Checking a message that came from outside, once, so that everything behind may trust its shape.
//
// The walk keeps the ends of the messages it is inside of in a fixed array; it goes down at a
// nested message and up where one ends, and never calls itself.

#include <cstring>

#include "rv/error/rvCodes.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvmsg.h"

namespace {

using kvx::FieldCursor;
using kvx::WireField;
namespace code = kvx::message_code;

bool isNameValid(const WireField& field) {
    if (field.nameBytes == 0) return true;
    return field.nameBytes <= kvx::kMaxNameBytes &&
           std::memchr(field.name, 0, field.nameBytes) == field.name + field.nameBytes - 1;
}

bool isDataValid(const WireField& field) {
    switch (field.type) {
        case RVMSG_DATETIME:
            return field.size == kvx::kDateTimeWireBytes;
        case RVMSG_BOOLEAN:
            return field.size == 1;
        case RVMSG_IPDATA:
            return field.size <= sizeof(std::uint32_t);
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
            return field.size <= sizeof(std::uint64_t);
        case RVMSG_MSG:
            return kvx::hasMagic(field.data, kvx::kMessageMagic);
        case RVMSG_ENCRYPTED:
            return kvx::hasMagic(field.data, kvx::kSealedMagic);
        default:
            return true;
    }
}

int validateFields(const std::uint8_t* position, const std::uint8_t* end) {
    const std::uint8_t* ends[kvx::kMaxNesting + 1] = {end};
    unsigned level = 0;
    WireField field;
    for (;;) {
        while (position == ends[level]) {
            if (level == 0) return code::kOk;
            --level;
        }
        FieldCursor cursor(position, ends[level]);
        if (cursor.next(field) != FieldCursor::Step::kField) return code::kInvalidData;
        if (!isNameValid(field) || !isDataValid(field)) return code::kInvalidData;
        position = cursor.position();
        if (field.type != RVMSG_MSG) continue;
        if (level == kvx::kMaxNesting) return code::kInvalidData;
        ends[++level] = position;
        position = field.data + kvx::kHeaderBytes;
    }
}

}  // namespace

int rvmsg_Validate(const void* bytes, std::size_t length) {
    if (bytes == nullptr || length < kvx::kHeaderBytes) return code::kInvalidData;
    if (!kvx::hasMagic(bytes, kvx::kMessageMagic)) return code::kNotInitialized;
    if (kvx::loadBig32(bytes) != length) return code::kInvalidData;
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    return validateFields(first + kvx::kHeaderBytes, first + length);
}
