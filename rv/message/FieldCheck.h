#pragma once

#include <cstdint>

#include "rv/error/rvCodes.h"
#include "rv/message/ShortText.h"
#include "rv/message/WireFormat.h"

/// Checking an untrusted message, as `rvmsg_Validate` promises it. Whoever reads a message once
/// takes its fields while they are checked.
namespace kvx {

[[nodiscard]] inline bool isNameValid(const WireField& field) {
    if (field.nameBytes == 0) return true;
    return field.nameBytes <= kMaxNameBytes && !hasZero(field.name, field.nameBytes - 1);
}

/// Without what a nested message holds.
[[nodiscard]] inline bool isDataValid(const WireField& field) {
    switch (field.type) {
        case RVMSG_DATETIME:
            return field.size == kDateTimeWireBytes;
        case RVMSG_BOOLEAN:
            return field.size == 1;
        case RVMSG_IPDATA:
            return field.size <= sizeof(std::uint32_t);
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
            return field.size <= sizeof(std::uint64_t);
        case RVMSG_MSG:
            return hasMagic(field.data, kMessageMagic);
        case RVMSG_ENCRYPTED:
            return hasMagic(field.data, kSealedMagic);
        default:
            return true;
    }
}

/// The fields of a nested message, and of those inside it: together at most `levels`, which are no
/// more than `kMaxLinkNesting`.
[[nodiscard]] bool isNestedValid(const WireField& message, unsigned levels);

/// Checks a whole message, and calls `visit(const WireField&)` for each field that is directly in
/// it, once that field has been checked. The fields in its first `checked` bytes have been already.
/// `levels` as for `isNestedValid`. Returns 0, 1 or 10, as `rvmsg_Validate`.
template <class Visit>
[[nodiscard]] int checkMessage(Bytes message, unsigned levels, Visit&& visit,
                               std::size_t checked = kHeaderBytes) {
    if (message.size() < kHeaderBytes) return message_code::kInvalidData;
    if (!hasMagic(message.data(), kMessageMagic)) return message_code::kNotInitialized;
    if (loadBig32(message.data()) != message.size()) return message_code::kInvalidData;
    FieldCursor cursor(message.data() + checked, message.data() + message.size());
    WireField field;
    while (cursor.left() != 0) {
        if (cursor.next(field) != FieldCursor::Step::kField) return message_code::kInvalidData;
        if (!isNameValid(field) || !isDataValid(field)) return message_code::kInvalidData;
        if (field.type == RVMSG_MSG && !isNestedValid(field, levels))
            return message_code::kInvalidData;
        visit(field);
    }
    return message_code::kOk;
}

}  // namespace kvx
