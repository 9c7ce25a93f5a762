#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "rv/message/SubjectView.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"

namespace kvx {

inline constexpr std::uint32_t kMessageMagic = 0x9955EEAA;
inline constexpr std::uint32_t kSealedMagic = 0x9955EEBB;
inline constexpr std::uint32_t kHeaderBytes = 8;            // length word and magic
inline constexpr std::uint32_t kSealedHeaderBytes = 9;      // and the sealed value's type
inline constexpr std::uint32_t kMaxNameBytes = 100;         // of a stored name, terminator included
inline constexpr std::uint32_t kMaxLookupCharacters = 100;  // of a name or path element in a lookup
inline constexpr unsigned kMaxNesting = 32;                 // levels below the top message
inline constexpr unsigned kMaxLinkNesting = kMaxNesting + 1;  // of a link's, with any valid payload

inline constexpr std::uint32_t kMaxShortSize = 119;
inline constexpr std::uint32_t kMaxMediumSize = 29999;
inline constexpr std::uint8_t kMediumForm = 0x79;
inline constexpr std::uint8_t kLongForm = 0x7A;
inline constexpr std::uint32_t kDateTimeWireBytes = 8;
inline constexpr std::uint32_t kDateTimeBytes = 12;  // decoded

inline constexpr std::uint32_t kMaxMessageBytes = 0x4000000;  // limit of a link (64 MiB)

inline bool hasMagic(const void* block, std::uint32_t magic) {
    return loadBig32(static_cast<const std::uint8_t*>(block) + 4) == magic;
}

/// One field in its wire form.
struct WireField {
    const char* name = nullptr;   // zero-terminated; null for an unnamed field
    std::uint32_t nameBytes = 0;  // terminator included; 0 for an unnamed field
    rvmsg_Type type = RVMSG_BADDATA;
    rvmsg_Size size = 0;
    const std::uint8_t* data = nullptr;

    /// The data for a reader. A text of no bytes is returned as "", since readers of texts take
    /// size 0 as "up to the terminator".
    rvmsg_Data readableData() const {
        return type == RVMSG_STRING && size == 0 ? static_cast<rvmsg_Data>("") : data;
    }

    bool isNamed(std::string_view wanted) const {
        return nameBytes == wanted.size() + 1 &&
               std::memcmp(name, wanted.data(), wanted.size()) == 0;
    }

    Bytes bytes() const { return {data, size}; }

    /// The text of a string up to its terminator; nothing for another type.
    std::optional<std::string_view> text() const {
        if (type != RVMSG_STRING) return std::nullopt;
        const auto* characters = reinterpret_cast<const char*>(data);
        return std::string_view(characters, strnlen(characters, size));
    }
};

/// Iterates over the fields of one message, never past its length word.
class FieldCursor {
  public:
    enum class Step : std::uint8_t {
        kField,
        kEnd,
        kBroken,  // the field is malformed or runs past the end; name and type are set if known
    };

    FieldCursor() = default;
    /// A message with a checked magic and all the bytes of its length word.
    explicit FieldCursor(const void* message) {
        const std::uint32_t length = loadBig32(message);
        if (length > kHeaderBytes) {
            reader_ = WireReader(message, length);
            static_cast<void>(reader_.skip(kHeaderBytes));
        }
    }
    /// Received bytes; visits nothing when their header is invalid or its length exceeds them.
    explicit FieldCursor(Bytes message) {
        if (message.size() < kHeaderBytes || !hasMagic(message.data(), kMessageMagic)) return;
        if (loadBig32(message.data()) <= message.size()) *this = FieldCursor(message.data());
    }
    /// Fields from `position` to `end`, which lie inside one message.
    FieldCursor(const std::uint8_t* position, const std::uint8_t* end)
        : reader_(position, static_cast<std::size_t>(end - position)) {}

    const std::uint8_t* position() const { return reader_.position(); }

    /// A single byte left, which cannot begin a field, is the end too.
    Step next(WireField& field) {
        if (reader_.left() <= 1) return Step::kEnd;
        if (!takeName(field)) return Step::kBroken;
        return (isSized(field.type) ? takeSized(field) : takeBody(field)) ? Step::kField
                                                                          : Step::kBroken;
    }

    std::size_t left() const { return reader_.left(); }

  private:
    // Types with an encoded size, in one of three forms.
    static bool isSized(rvmsg_Type type) {
        constexpr std::uint32_t kSized =
            1U << RVMSG_DATETIME | 1U << RVMSG_OPAQUE | 1U << RVMSG_STRING | 1U << RVMSG_BOOLEAN |
            1U << RVMSG_IPDATA | 1U << RVMSG_INT | 1U << RVMSG_UINT | 1U << RVMSG_REAL;
        return type <= RVMSG_REAL && (kSized >> type & 1U) != 0;
    }

    bool takeName(WireField& field) {
        field.name = nullptr;
        field.nameBytes = 0;
        field.type = RVMSG_BADDATA;
        const std::uint8_t* head = reader_.position();
        const std::size_t nameBytes = *head;
        if (!reader_.skip(nameBytes + 2)) return false;
        if (nameBytes != 0) {
            if (head[nameBytes] != 0) return false;
            field.name = reinterpret_cast<const char*>(head + 1);
            field.nameBytes = static_cast<std::uint32_t>(nameBytes);
        }
        field.type = head[nameBytes + 1];
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
            default:
                field.size = 0;
                field.data = reader_.position();
                return true;
        }
    }

    // Messages and sealed blocks begin with their own length word.
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
        return length >= kSubjectHeaderBytes && reader_.take(length, field.data);
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

/// The first field of that name in received bytes; nothing when it is absent or follows a broken
/// field.
inline std::optional<WireField> findField(Bytes message, std::string_view name) {
    FieldCursor cursor(message);
    for (WireField field; cursor.next(field) == FieldCursor::Step::kField;) {
        if (field.isNamed(name)) return field;
    }
    return std::nullopt;
}

template <class Value>
rvmsg_Size storeDecoded(void* scratch, Value value) {
    std::memcpy(scratch, &value, sizeof value);
    return sizeof value;
}

/// The decoders return the size of the decoded value, 0 for a size that the type does not have.
inline rvmsg_Size decodeNumber(const WireField& field, void* scratch) {
    switch (field.size) {
        case 1:
            return storeDecoded(scratch, *field.data);
        case 2:
            return storeDecoded(scratch, loadBig16(field.data));
        case 4:
            return storeDecoded(scratch, loadBig32(field.data));
        case 8:
            return storeDecoded(scratch, loadBig64(field.data));
        default:
            return 0;
    }
}

inline rvmsg_Size decodeReal(const WireField& field, void* scratch) {
    return field.size == 4 || field.size == 8 ? decodeNumber(field, scratch) : 0;
}

inline rvmsg_Size decodeAddress(const WireField& field, void* scratch) {
    if (field.size != 2 && field.size != 4) return 0;
    std::memcpy(scratch, field.data, field.size);
    return field.size;
}

inline rvmsg_Size decodeDateTime(const WireField& field, void* scratch) {
    if (field.size != kDateTimeWireBytes) return 0;
    const std::uint32_t high = loadBig32(field.data + 4);
    const std::uint32_t words[3] = {high >> 24U, loadBig32(field.data), high & 0xFFFFFFU};
    std::memcpy(scratch, words, sizeof words);
    return sizeof words;
}

/// Decodes a field's data for lookups and iteration: numbers, dates and addresses into `scratch`
/// (12 bytes, aligned for a double), all else in place. False, with the outputs unchanged, for a
/// size that the type does not have.
inline bool decodeField(const WireField& field, void* scratch, rvmsg_Size& size, rvmsg_Data& data) {
    rvmsg_Size decoded = 0;
    switch (field.type) {
        case RVMSG_INT:
        case RVMSG_UINT:
            decoded = decodeNumber(field, scratch);
            break;
        case RVMSG_REAL:
            decoded = decodeReal(field, scratch);
            break;
        case RVMSG_DATETIME:
            decoded = decodeDateTime(field, scratch);
            break;
        case RVMSG_IPDATA:
            decoded = decodeAddress(field, scratch);
            break;
        default:
            size = field.size;
            data = field.readableData();
            return true;
    }
    if (decoded == 0) return false;
    size = decoded;
    data = scratch;
    return true;
}

}  // namespace kvx
