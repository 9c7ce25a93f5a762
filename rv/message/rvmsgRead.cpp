// Finding, decoding and iterating fields, and checking a whole untrusted message.
//
// All reading goes through `FieldCursor`, the one place that knows the layout of a field and
// detects a broken one. A path is followed in a loop, message by message, and the check keeps the
// ends of the enclosing messages in a fixed array: deep nesting costs no stack.

#include <cstring>

#include "rv/error/rvCodes.h"
#include "rv/message/FieldCheck.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvmsg.h"

namespace {

using kvx::FieldCursor;
using kvx::WireField;
namespace code = kvx::message_code;

// Scans one message for `name`.
int findHere(const void* message, std::string_view name, WireField& field) {
    if (!kvx::hasMagic(message, kvx::kMessageMagic)) return code::kNotInitialized;
    FieldCursor cursor(message);
    for (;;) {
        switch (cursor.next(field)) {
            case FieldCursor::Step::kField:
                if (field.isNamed(name)) return code::kOk;
                break;
            case FieldCursor::Step::kEnd:
                return code::kNotFound;
            case FieldCursor::Step::kBroken:
                return code::kInvalidData;
        }
    }
}

int find(const void* message, const char* name, WireField& field) {
    if (message == nullptr) return code::kInvalidArgument;
    if (name == nullptr) return code::kInvalidName;
    for (;;) {
        std::size_t element = 0;
        while (name[element] != 0 && name[element] != '.') ++element;
        if (element == 0 || element > kvx::kMaxLookupCharacters) return code::kInvalidName;
        const int result = findHere(message, {name, element}, field);
        if (result != code::kOk || name[element] == 0) return result;
        if (field.type != RVMSG_MSG) return code::kNotFound;
        message = field.data;
        name += element + 1;
    }
}

template <class Value>
void assign(Value* target, Value value) {
    if (target != nullptr) *target = value;
}

bool isWanted(const WireField& field, const char* name) {
    if (name == nullptr) return true;
    if (field.nameBytes == 0) return *name == 0;
    return std::strcmp(field.name, name) == 0;
}

// Calls back for one field; nonzero ends the walk.
int report(const WireField& field, void* scratch, rvmsg_IterateCallback callback, void* closure) {
    const char* const name = field.name == nullptr ? "" : field.name;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (!kvx::decodeField(field, scratch, size, data)) {
        return callback(name, RVMSG_BADDATA, 0, nullptr, closure);
    }
    return callback(name, field.type, size, data, closure);
}

}  // namespace

bool kvx::isNestedValid(const WireField& message, unsigned levels) {
    const std::uint8_t* position = message.data + kHeaderBytes;
    const std::uint8_t* ends[kMaxLinkNesting] = {message.data + message.size};
    unsigned level = 0;
    WireField field;
    for (;;) {
        while (position == ends[level]) {
            if (level == 0) return true;
            --level;
        }
        FieldCursor cursor(position, ends[level]);
        if (cursor.next(field) != FieldCursor::Step::kField) return false;
        if (!isNameValid(field) || !isDataValid(field)) return false;
        position = cursor.position();
        if (field.type != RVMSG_MSG) continue;
        if (level + 1 == levels) return false;
        ends[++level] = position;
        position = field.data + kHeaderBytes;
    }
}

int rvmsg_Get(void* scratch, const void* buffer, const char* name, rvmsg_Type* type,
              rvmsg_Size* size, rvmsg_Data* data) {
    if (scratch == nullptr) return code::kInvalidArgument;
    WireField field;
    if (const int result = find(buffer, name, field); result != code::kOk) return result;
    rvmsg_Size decodedSize = 0;
    rvmsg_Data decoded = nullptr;
    if (!kvx::decodeField(field, scratch, decodedSize, decoded)) return code::kInvalidData;
    assign(type, field.type);
    assign(size, decodedSize);
    assign(data, decoded);
    return code::kOk;
}

int rvmsg_GetRaw(const void* buffer, const char* name, rvmsg_Type* type, rvmsg_Size* size,
                 rvmsg_Data* data) {
    WireField field;
    if (const int result = find(buffer, name, field); result != code::kOk) return result;
    assign(type, field.type);
    assign(size, field.size);
    assign(data, field.readableData());
    return code::kOk;
}

int rvmsg_Iterate(const void* buffer, const char* name, rvmsg_IterateCallback callback,
                  void* closure) {
    if (buffer == nullptr || callback == nullptr) return code::kInvalidArgument;
    if (!kvx::hasMagic(buffer, kvx::kMessageMagic)) return code::kNotInitialized;
    alignas(8) unsigned char scratch[16];
    FieldCursor cursor(buffer);
    WireField field;
    for (;;) {
        switch (cursor.next(field)) {
            case FieldCursor::Step::kField:
                if (isWanted(field, name) && report(field, scratch, callback, closure) != 0) {
                    return code::kOk;
                }
                break;
            case FieldCursor::Step::kEnd:
                return code::kOk;
            case FieldCursor::Step::kBroken:
                return code::kInvalidData;
        }
    }
}

int rvmsg_Validate(const void* bytes, std::size_t length) {
    if (bytes == nullptr) return code::kInvalidData;
    return kvx::checkMessage({static_cast<const std::uint8_t*>(bytes), length}, kvx::kMaxNesting,
                             [](const WireField&) {});
}

int rvmsg_Unseal(rvmsg_Data block, rvmsg_Size blockLength, rvmsg_UnsealRoutine unseal,
                 void* closure, rvmsg_Type* type, rvmsg_Size* size, rvmsg_Data* data) {
    if (block == nullptr || unseal == nullptr) return code::kInvalidArgument;
    if (blockLength < kvx::kSealedHeaderBytes || !kvx::hasMagic(block, kvx::kSealedMagic)) {
        return code::kInvalidData;
    }
    const std::uint32_t length = kvx::loadBig32(block);
    if (length < kvx::kSealedHeaderBytes || length > blockLength) return code::kInvalidData;
    const auto* const bytes = static_cast<const std::uint8_t*>(block);
    rvmsg_Size unsealedSize = 0;
    const rvmsg_Data unsealed = unseal(bytes + kvx::kSealedHeaderBytes,
                                       length - kvx::kSealedHeaderBytes, &unsealedSize, closure);
    if (unsealed == nullptr) return code::kInvalidData;
    assign<rvmsg_Type>(type, bytes[kvx::kHeaderBytes]);
    assign(size, unsealedSize);
    assign(data, unsealed);
    return code::kOk;
}
