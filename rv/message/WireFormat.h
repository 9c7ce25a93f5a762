#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"

namespace kvx {

inline constexpr std::uint32_t kMessageMagic = 0x9955EEAA;
inline constexpr std::uint32_t kSealedMagic = 0x9955EEBB;
inline constexpr std::uint32_t kHeaderBytes = 8;            // length word and magic
inline constexpr std::uint32_t kSealedHeaderBytes = 9;      // and the type of the sealed value
inline constexpr std::uint32_t kMaxNameBytes = 100;         // of a stored name, terminator included
inline constexpr std::uint32_t kMaxLookupCharacters = 100;  // of a name or path element looked up
inline constexpr unsigned kMaxNesting = 32;                 // levels below the top message

inline constexpr std::uint32_t kMaxShortSize = 119;
inline constexpr std::uint32_t kMaxMediumSize = 29999;
inline constexpr std::uint8_t kMediumForm = 0x79;
inline constexpr std::uint8_t kLongForm = 0x7A;
inline constexpr std::uint32_t kDateTimeWireBytes = 8;
inline constexpr std::uint32_t kDateTimeBytes = 12;  // in memory
inline constexpr std::uint32_t kMinSubjectBytes = 3;

inline bool hasMagic(const void* block, std::uint32_t magic) {
    return loadBig32(static_cast<const std::uint8_t*>(block) + 4) == magic;
}

/// One field as it lies in a message.
struct WireField {
    const char* name = nullptr;   // zero-terminated; null for an unnamed field
    std::uint32_t nameBytes = 0;  // terminator included; 0 for an unnamed field
    rvmsg_Type type = RVMSG_BADDATA;
    rvmsg_Size size = 0;
    const std::uint8_t* data = nullptr;

    bool isNamed(const char* wanted, std::size_t wantedBytes) const {
        return nameBytes == wantedBytes && std::memcmp(name, wanted, wantedBytes - 1) == 0;
    }
};

/// Walks the fields of one message. The message has the magic; its length word bounds every step.
class FieldCursor {
  public:
    enum class Step : std::uint8_t {
        kField,
        kEnd,
        kBroken,  // the field is malformed or runs past the end; name and type are set if known
    };

    FieldCursor() = default;
    explicit FieldCursor(const void* message) {
        const std::uint32_t length = loadBig32(message);
        if (length > kHeaderBytes) {
            reader_ = WireReader(message, length);
            static_cast<void>(reader_.skip(kHeaderBytes));
        }
    }
    /// Fields from `position` to `end`, which lie inside one message.
    FieldCursor(const std::uint8_t* position, const std::uint8_t* end)
        : reader_(position, static_cast<std::size_t>(end - position)) {}

    const std::uint8_t* position() const { return reader_.position(); }

    /// The step ends the walk too when a single byte is left, which can begin no field.
    Step next(WireField& field) {
        if (reader_.left() <= 1) return Step::kEnd;
        return takeName(field) && takeBody(field) ? Step::kField : Step::kBroken;
    }

    std::size_t left() const { return reader_.left(); }

  private:
    bool takeName(WireField& field) {
        std::uint8_t nameBytes = 0;
        std::uint8_t type = 0;
        const std::uint8_t* name = nullptr;
        field.name = nullptr;
        field.nameBytes = 0;
        field.type = RVMSG_BADDATA;
        if (!reader_.u8(nameBytes) || !reader_.take(nameBytes, name) || !reader_.u8(type)) {
            return false;
        }
        if (nameBytes != 0) {
            if (name[nameBytes - 1] != 0) return false;
            field.name = reinterpret_cast<const char*>(name);
            field.nameBytes = nameBytes;
        }
        field.type = type;
        return true;
    }

    bool takeBody(WireField& field) {
        switch (field.type) {
            case RVMSG_BADDATA:
            case RVMSG_NONE:
                return false;
            case RVMSG_MSG:
                return takeBlock(field, kHeaderBytes);
            case RVMSG_ENCRYPTED:
                return takeBlock(field, kSealedHeaderBytes);
            case RVMSG_SUBJECT:
                return takeSubject(field);
            case RVMSG_DATETIME:
            case RVMSG_OPAQUE:
            case RVMSG_STRING:
            case RVMSG_BOOLEAN:
            case RVMSG_IPDATA:
            case RVMSG_INT:
            case RVMSG_UINT:
            case RVMSG_REAL:
                return takeSized(field);
            default:
                field.size = 0;
                field.data = reader_.position();
                return true;
        }
    }

    // Messages and sealed blocks bring their own length word, which is the data's first.
    bool takeBlock(WireField& field, std::uint32_t least) {
        std::uint8_t form = 0;
        return reader_.u8(form) && form == kLongForm && reader_.peek32(field.size) &&
               field.size >= least && reader_.take(field.size, field.data);
    }

    bool takeSubject(WireField& field) {
        std::uint8_t form = 0;
        std::uint16_t length = 0;
        if (!reader_.u8(form) || form != kMediumForm || !reader_.peek16(length)) return false;
        field.size = length;
        return length >= kMinSubjectBytes && reader_.take(length, field.data);
    }

    bool takeSized(WireField& field) {
        std::uint8_t form = 0;
        if (!reader_.u8(form)) return false;
        field.size = form;
        if (form > kMaxShortSize && !takeLongerSize(field, form)) return false;
        return reader_.take(field.size, field.data);
    }

    // The longer forms count their own bytes.
    bool takeLongerSize(WireField& field, std::uint8_t form) {
        std::uint16_t medium = 0;
        if (form == kMediumForm && reader_.u16(medium) && medium >= sizeof medium) {
            field.size = medium - static_cast<std::uint32_t>(sizeof medium);
            return true;
        }
        if (form != kLongForm || !reader_.u32(field.size) || field.size < sizeof field.size) {
            return false;
        }
        field.size -= static_cast<std::uint32_t>(sizeof field.size);
        return true;
    }

    WireReader reader_;
};

/// Decodes a field's data as lookups and iteration deliver it: numbers, dates and addresses into
/// `scratch` (12 bytes, aligned for a double), all else in place. False for a size that the type
/// does not have; the outputs are then not changed.
bool decodeField(const WireField& field, void* scratch, rvmsg_Size& size, rvmsg_Data& data);

}  // namespace kvx
