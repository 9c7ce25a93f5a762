// Building messages: the header, and appending fields to a message or one nested in it.
//
// The encoder's capacity checks are part of the contract: they ask for a little more than is
// written, and growing messages rely on the same numbers. A field of a nested message is encoded in
// the free space behind the outermost one and then rotated into place, which moves up what follows
// the nested message; the length words on the path are raised last. So the free space of the
// outermost message is the capacity at every level.
//
// Arguments may lie in the message: nothing before the free space changes until the field is
// encoded.

#include "rv/message/rvmsg.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/ShortText.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvSubject.h"

namespace {

using kvx::FieldCursor;
using kvx::WireField;
namespace code = kvx::message_code;

/// The free space behind a message. Who writes has checked that there is room.
class FieldWriter {
  public:
    FieldWriter(std::uint8_t* at, std::size_t room) : start_(at), at_(at), end_(at + room) {}

    std::size_t room() const { return static_cast<std::size_t>(end_ - at_); }
    std::uint32_t written() const { return static_cast<std::uint32_t>(at_ - start_); }

    void put8(std::uint32_t value) { *at_++ = static_cast<std::uint8_t>(value); }
    void put16(std::uint16_t value) { putSwapped(__builtin_bswap16(value)); }
    void put32(std::uint32_t value) { putSwapped(__builtin_bswap32(value)); }
    void put64(std::uint64_t value) { putSwapped(__builtin_bswap64(value)); }
    void put(const void* bytes, std::size_t count) {
        kvx::copyShort(at_, bytes, count);
        at_ += count;
    }

  private:
    template <class Value>
    void putSwapped(Value swapped) {
        std::memcpy(at_, &swapped, sizeof swapped);
        at_ += sizeof swapped;
    }

    std::uint8_t* start_;
    std::uint8_t* at_;
    std::uint8_t* end_;
};

template <class Value>
Value load(const void* data) {
    Value value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

// True when `size` + 1 is less than the room. All checks below ask for at least what is written.
bool fits(const FieldWriter& out, std::uint64_t size) {
    return size + 1 < out.room();
}

int putBlock(FieldWriter& out, rvmsg_Data block, std::uint32_t magic, std::uint32_t least) {
    if (!kvx::hasMagic(block, magic)) return code::kNotInitialized;
    const std::uint32_t length = kvx::loadBig32(block);
    if (length < least) return code::kInvalidData;
    if (!fits(out, length)) return code::kNoRoom;
    out.put8(kvx::kLongForm);
    out.put(block, length);
    return code::kOk;
}

int putSubject(FieldWriter& out, rvmsg_Data subject) {
    const unsigned length = rvSubject_Length(subject);
    if (length < kvx::kSubjectHeaderBytes) return code::kInvalidData;
    if (!fits(out, length)) return code::kNoRoom;
    out.put8(kvx::kMediumForm);
    out.put(subject, length);
    return code::kOk;
}

int putDateTime(FieldWriter& out, rvmsg_Size size, rvmsg_Data data) {
    constexpr std::size_t kRoom = 10;
    if (size < kvx::kDateTimeBytes) return code::kInvalidArgument;
    if (out.room() < kRoom) return code::kNoRoom;
    std::uint32_t words[3];  // high byte of the seconds, low 32 bits, microseconds
    std::memcpy(words, data, sizeof words);
    out.put8(kvx::kDateTimeWireBytes);
    out.put32(words[1]);
    out.put32(words[0] << 24U | (words[2] & 0xFFFFFFU));
    return code::kOk;
}

int putBoolean(FieldWriter& out, rvmsg_Size size, rvmsg_Data data) {
    if (size != 1 && size != 2 && size != 4) return code::kInvalidArgument;
    out.put8(1);
    out.put(data, 1);
    return code::kOk;
}

int putAddress(FieldWriter& out, rvmsg_Size size, rvmsg_Data data) {
    if (!fits(out, size)) return code::kNoRoom;
    if (size != 2 && size != 4) return code::kInvalidArgument;
    out.put8(size);
    out.put(data, size);
    return code::kOk;
}

int putNumber(FieldWriter& out, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    if (!fits(out, size)) return code::kNoRoom;
    if (type == RVMSG_REAL && size < sizeof(float)) return code::kInvalidArgument;
    out.put8(size);
    switch (size) {
        case 1:
            out.put(data, 1);
            return code::kOk;
        case 2:
            out.put16(load<std::uint16_t>(data));
            return code::kOk;
        case 4:
            out.put32(load<std::uint32_t>(data));
            return code::kOk;
        case 8:
            out.put64(load<std::uint64_t>(data));
            return code::kOk;
        default:
            return code::kInvalidArgument;
    }
}

int putBytes(FieldWriter& out, std::uint64_t size, rvmsg_Data data) {
    constexpr std::uint64_t kLongestForm = 5;
    if (size + kLongestForm >= out.room()) return code::kNoRoom;
    if (size <= kvx::kMaxShortSize) {
        out.put8(static_cast<std::uint32_t>(size));
    } else if (size <= kvx::kMaxMediumSize) {
        out.put8(kvx::kMediumForm);
        out.put16(static_cast<std::uint16_t>(size + sizeof(std::uint16_t)));
    } else {
        out.put8(kvx::kLongForm);
        out.put32(static_cast<std::uint32_t>(size + sizeof(std::uint32_t)));
    }
    out.put(data, size);
    return code::kOk;
}

// The size of a text: as given, else including its terminator.
std::uint64_t textSize(rvmsg_Size size, rvmsg_Data data) {
    return size != 0 ? size : std::strlen(static_cast<const char*>(data)) + 1;
}

int putData(FieldWriter& out, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    switch (type) {
        case RVMSG_BADDATA:
        case RVMSG_NONE:
            return code::kInvalidArgument;
        case RVMSG_MSG:
            return putBlock(out, data, kvx::kMessageMagic, kvx::kHeaderBytes);
        case RVMSG_ENCRYPTED:
            return putBlock(out, data, kvx::kSealedMagic, kvx::kSealedHeaderBytes);
        case RVMSG_SUBJECT:
            return putSubject(out, data);
        case RVMSG_DATETIME:
            return putDateTime(out, size, data);
        case RVMSG_OPAQUE:
        case RVMSG_STRING:
            return putBytes(out, type == RVMSG_STRING ? textSize(size, data) : size, data);
        case RVMSG_BOOLEAN:
            return putBoolean(out, size, data);
        case RVMSG_IPDATA:
            return putAddress(out, size, data);
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
            return putNumber(out, type, size, data);
        default:
            return code::kOk;
    }
}

// `name` has `characters` characters; none make an unnamed field.
int putField(FieldWriter& out, const char* name, std::size_t characters, rvmsg_Type type,
             rvmsg_Size size, rvmsg_Data data) {
    constexpr std::size_t kAfterName = 3;  // bytes required for type and size
    const std::size_t nameBytes = characters == 0 ? 0 : characters + 1;
    if (nameBytes > kvx::kMaxNameBytes) return code::kInvalidName;
    if (out.room() < nameBytes + 2) return code::kNoRoom;
    out.put8(static_cast<std::uint32_t>(nameBytes));
    out.put(name, nameBytes);
    if (out.room() < kAfterName) return code::kNoRoom;
    // Codes above a byte are unlisted, and so is 255.
    out.put8(std::min<rvmsg_Type>(type, UINT8_MAX));
    return putData(out, type, size, data);
}

// The nested message that `path` (of `characters`, a full stop after them) names in `message`.
int findNested(std::uint8_t* message, const char* path, std::size_t characters,
               std::uint8_t*& nested) {
    if (characters == 0 || characters > kvx::kMaxLookupCharacters) return code::kInvalidName;
    FieldCursor cursor(message);
    WireField field;
    for (;;) {
        const FieldCursor::Step step = cursor.next(field);
        if (step == FieldCursor::Step::kEnd) return code::kNotFound;
        const bool isWanted = field.isNamed({path, characters});
        if (step == FieldCursor::Step::kBroken) {
            return isWanted && field.type == RVMSG_MSG ? code::kInvalidArgument
                                                       : code::kInvalidData;
        }
        if (!isWanted) continue;
        if (field.type != RVMSG_MSG) return code::kInvalidArgument;
        if (!kvx::hasMagic(field.data, kvx::kMessageMagic)) return code::kNotInitialized;
        nested = message + (field.data - message);
        return code::kOk;
    }
}

// Descends to the innermost message on the path `name`, and leaves the last element in `name`.
int descend(std::uint8_t*& message, const char*& name) {
    while (const char* const stop = std::strchr(name, '.')) {
        const int result =
            findNested(message, name, static_cast<std::size_t>(stop - name), message);
        if (result != code::kOk) return result;
        name = stop + 1;
    }
    return code::kOk;
}

// Adds `by` to the length of `message` and of every message on the way down to `innermost`.
void raiseLengths(std::uint8_t* message, const std::uint8_t* innermost, std::uint32_t by) {
    for (;;) {
        FieldCursor cursor(message);  // ends where the message ended before
        kvx::storeBig32(message, kvx::loadBig32(message) + by);
        if (message == innermost) return;
        WireField field;
        while (cursor.next(field) == FieldCursor::Step::kField && cursor.position() <= innermost) {
        }
        message += field.data - message;
    }
}

// Moves the last field, which was encoded behind `message`, to the end of `innermost` in it.
void moveInto(std::uint8_t* message, std::uint8_t* innermost, std::uint32_t length) {
    std::uint8_t* const place = innermost + kvx::loadBig32(innermost);
    std::uint8_t* const end = message + kvx::loadBig32(message);
    raiseLengths(message, innermost, length);
    std::rotate(place, end, end + length);
}

// The offset of the end of `text` in the buffer; 0 when it lies elsewhere.
std::size_t endInside(const void* buffer, rvmsg_Size capacity, const char* text) {
    const auto offset = kvx::offsetIn(buffer, capacity, text);
    return offset && text != nullptr ? *offset + std::strlen(text) + 1 : 0;
}

}  // namespace

int rvmsg_Init(void* buffer, rvmsg_Size capacity) {
    if (buffer == nullptr) return code::kInvalidArgument;
    if (capacity < kvx::kHeaderBytes) return code::kNoRoom;
    kvx::storeBig32(buffer, kvx::kHeaderBytes);
    kvx::storeBig32(static_cast<std::uint8_t*>(buffer) + 4, kvx::kMessageMagic);
    return code::kOk;
}

int rvmsg_Length(const void* buffer, rvmsg_Size* length) {
    if (buffer == nullptr || length == nullptr) return code::kInvalidArgument;
    if (!kvx::hasMagic(buffer, kvx::kMessageMagic)) return code::kNotInitialized;
    *length = kvx::loadBig32(buffer);
    return code::kOk;
}

int rvmsg_Append(void* buffer, rvmsg_Size capacity, const char* name, rvmsg_Type type,
                 rvmsg_Size size, rvmsg_Data data) {
    if (buffer == nullptr || data == nullptr) return code::kInvalidArgument;
    if (!kvx::hasMagic(buffer, kvx::kMessageMagic)) return code::kNotInitialized;
    const std::uint32_t length = kvx::loadBig32(buffer);
    if (length < kvx::kHeaderBytes) return code::kNotInitialized;
    if (capacity <= length) return code::kNoRoom;
    auto* const bytes = static_cast<std::uint8_t*>(buffer);
    FieldWriter out(bytes + length, capacity - length);
    kvx::NameShape shape = kvx::shapeOf(name);
    std::uint8_t* innermost = bytes;
    if (shape.hasFullStop) {
        if (const int result = descend(innermost, name); result != code::kOk) return result;
        shape = kvx::shapeOf(name);
    }
    const int result = putField(out, name, shape.characters, type, size, data);
    if (result != code::kOk) return result;
    if (innermost == bytes) {
        kvx::storeBig32(bytes, length + out.written());
    } else {
        moveInto(bytes, innermost, out.written());
    }
    return code::kOk;
}

int rvmsg_AppendAdvisoryFields(void* buffer, rvmsg_Size capacity, const char* advClass,
                               const char* source, const char* name, const char* description) {
    if (advClass == nullptr || source == nullptr || name == nullptr) {
        return code::kInvalidArgument;
    }
    if (std::strchr(advClass, '.') != nullptr) return code::kInvalidName;
    const std::pair<const char*, const char*> fields[] = {{"ADV_CLASS", advClass},
                                                          {"ADV_SOURCE", source},
                                                          {"ADV_NAME", name},
                                                          {"ADV_DESC", description}};
    std::size_t behind = 0;  // texts in the buffer are read before they are overwritten
    for (const auto& [field, text] : fields) {
        behind = std::max(behind, endInside(buffer, capacity, text));
    }
    if (behind > capacity) return code::kNoRoom;
    auto* const message = static_cast<std::uint8_t*>(buffer) + behind;
    const auto room = static_cast<rvmsg_Size>(capacity - behind);
    int result = rvmsg_Init(message, room);
    for (const auto& [field, text] : fields) {
        if (result != code::kOk || text == nullptr) break;
        result = rvmsg_Append(message, room, field, RVMSG_STRING, 0, text);
    }
    if (result == code::kOk && behind != 0) {
        std::memmove(buffer, message, kvx::loadBig32(message));
    }
    return result;
}
