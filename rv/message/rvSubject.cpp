// Operations on encoded subjects: a big-endian length word, an element count, and the element
// records. A subject given by a caller is trusted only for its length word: `WireReader` keeps
// every step inside it, and a record that does not fit ends the operation with a failure. The
// stricter rules for subjects from outside are in SubjectView.cpp.

#include "rv/message/rvSubject.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "rv/message/SubjectView.h"
#include "rv/message/WireReader.h"

namespace {

constexpr unsigned kMaxCount = 255;  // what the count byte holds
constexpr unsigned kMaxLength = 0xFFFF;

std::uint8_t* bytesOf(void* encoded) {
    return static_cast<std::uint8_t*>(encoded);
}

const std::uint8_t* bytesOf(const void* encoded) {
    return static_cast<const std::uint8_t*>(encoded);
}

void writeHeader(void* encoded, unsigned length, unsigned count) {
    kvx::storeBig16(encoded, static_cast<std::uint16_t>(length));
    bytesOf(encoded)[2] = static_cast<std::uint8_t>(count);
}

void writeElement(std::uint8_t* at, const char* text, std::size_t characters) {
    *at = static_cast<std::uint8_t>(characters + kvx::kSubjectElementExtra);
    std::memcpy(at + 1, text, characters);
    at[characters + 1] = 0;
}

bool isElementLength(std::size_t characters) {
    return characters >= 1 && characters <= kvx::kMaxSubjectElementText;
}

// Reads one element record; false when it exceeds the subject or has no terminator.
bool takeElement(kvx::WireReader& reader, const char*& text, std::size_t& characters) {
    std::uint8_t recordLength = 0;
    const std::uint8_t* start = nullptr;
    if (!reader.u8(recordLength) || recordLength < kvx::kSubjectElementExtra) return false;
    if (!reader.take(recordLength - 1U, start)) return false;
    characters = recordLength - kvx::kSubjectElementExtra;
    text = reinterpret_cast<const char*>(start);
    return start[characters] == 0;
}

// A reader over the element records; empty for a subject shorter than its header.
kvx::WireReader elementsOf(const void* encoded) {
    const unsigned length = rvSubject_Length(encoded);
    if (length < kvx::kSubjectHeaderBytes) return {};
    return {bytesOf(encoded) + kvx::kSubjectHeaderBytes, length - kvx::kSubjectHeaderBytes};
}

bool isFilledByElements(const void* encoded) {
    kvx::WireReader reader = elementsOf(encoded);
    for (unsigned left = rvSubject_Count(encoded); left > 0; --left) {
        const char* text = nullptr;
        std::size_t characters = 0;
        if (!takeElement(reader, text, characters)) return false;
    }
    return reader.left() == 0;
}

}  // namespace

int rvSubject_FromText(void* out, unsigned capacity, const char* text) {
    if (out == nullptr || text == nullptr) return -1;
    capacity = std::min(capacity, kvx::kMaxSubjectBytes);
    std::uint8_t encoded[kvx::kMaxSubjectBytes];  // `text` may lie in `out`
    unsigned length = kvx::kSubjectHeaderBytes;
    unsigned count = 0;
    for (;;) {
        const std::size_t characters = std::strcspn(text, ".");
        if (!isElementLength(characters) || count == kvx::kMaxSubjectElements) return -1;
        const auto record = static_cast<unsigned>(characters) + kvx::kSubjectElementExtra;
        if (length + record > capacity) return -1;
        writeElement(encoded + length, text, characters);
        length += record;
        ++count;
        if (text[characters] == 0) break;
        text += characters + 1;
    }
    writeHeader(encoded, length, count);
    std::memcpy(out, encoded, length);
    return static_cast<int>(length);
}

char* rvSubject_ToText(char* out, unsigned capacity, const void* encoded) {
    if (out == nullptr || encoded == nullptr) return nullptr;
    const unsigned length = rvSubject_Length(encoded);
    if (length < kvx::kSubjectHeaderBytes || length > capacity) return nullptr;
    if (!isFilledByElements(encoded)) return nullptr;
    // The text is shorter than the encoding, so it may overwrite it from the front.
    std::memmove(out, encoded, length);
    const unsigned count = rvSubject_Count(out);
    kvx::WireReader reader = elementsOf(out);
    char* at = out;
    for (unsigned i = 0; i < count; ++i) {
        const char* text = nullptr;
        std::size_t characters = 0;
        if (!takeElement(reader, text, characters)) return nullptr;
        if (i > 0) *at++ = '.';
        std::memmove(at, text, characters);
        at += characters;
    }
    *at = 0;
    return out;
}

unsigned rvSubject_Length(const void* encoded) {
    return encoded == nullptr ? 0 : kvx::loadBig16(encoded);
}

unsigned rvSubject_Count(const void* encoded) {
    return rvSubject_Length(encoded) < kvx::kSubjectHeaderBytes ? 0 : bytesOf(encoded)[2];
}

const char* rvSubject_Element(const void* encoded, unsigned i) {
    if (i == 0 || i > rvSubject_Count(encoded)) return nullptr;
    kvx::WireReader reader = elementsOf(encoded);
    const char* text = nullptr;
    std::size_t characters = 0;
    for (; i > 0; --i) {
        if (!takeElement(reader, text, characters)) return nullptr;
    }
    return text;
}

int rvSubject_AppendElement(void* encoded, unsigned capacity, const char* text) {
    if (encoded == nullptr || text == nullptr) return -1;
    const std::size_t characters = std::strcspn(text, ".");
    if (text[characters] != 0 || !isElementLength(characters)) return -1;
    const unsigned length = rvSubject_Length(encoded);
    const unsigned count = rvSubject_Count(encoded);
    const unsigned newLength =
        length + static_cast<unsigned>(characters) + kvx::kSubjectElementExtra;
    if (length < kvx::kSubjectHeaderBytes || count == kMaxCount || newLength > kMaxLength)
        return -1;
    if (newLength >= capacity) return -1;
    writeElement(bytesOf(encoded) + length, text, characters);
    writeHeader(encoded, newLength, count + 1);
    return static_cast<int>(newLength);
}

int rvSubject_RemoveLast(void* encoded) {
    const unsigned count = rvSubject_Count(encoded);
    if (count == 0) return -1;
    kvx::WireReader reader = elementsOf(encoded);
    const char* text = nullptr;
    std::size_t characters = 0;
    for (unsigned left = count - 1; left > 0; --left) {
        if (!takeElement(reader, text, characters)) return -1;
    }
    const auto newLength = static_cast<unsigned>(reader.position() - bytesOf(encoded));
    writeHeader(encoded, newLength, count - 1);
    return static_cast<int>(newLength);
}

int rvSubject_InitEmpty(void* out, unsigned capacity) {
    if (out == nullptr || capacity < kvx::kSubjectHeaderBytes) return -1;
    writeHeader(out, kvx::kSubjectHeaderBytes, 0);
    return static_cast<int>(kvx::kSubjectHeaderBytes);
}
