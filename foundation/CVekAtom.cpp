// An atom is a kind, a length and one word. Texts and byte strings are always in memory from
// `malloc`, whether copied or taken over, so that there is one way to release them; an empty text
// is the null pointer.

#include "foundation/CVekAtom.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include "foundation/ErrorCodes.h"

namespace {

void* allocateOrThrow(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

char* copyText(std::string_view text) {
    auto* copy = static_cast<char*>(allocateOrThrow(text.size() + 1));
    text.copy(copy, text.size());
    copy[text.size()] = '\0';
    return copy;
}

// An empty byte string has a pointer that is not null.
unsigned char* copyBytes(const unsigned char* bytes, std::size_t length) {
    auto* copy = static_cast<unsigned char*>(allocateOrThrow(std::max<std::size_t>(length, 1)));
    if (length > 0) std::memcpy(copy, bytes, length);
    return copy;
}

std::size_t usableLength(const unsigned char* bytes, int length) {
    return bytes == nullptr || length < 0 ? 0 : static_cast<std::size_t>(length);
}

char* decimal(long long number) {
    char digits[std::numeric_limits<long long>::digits10 + 3] = {};  // sign and terminator
    std::to_chars(std::begin(digits), std::end(digits) - 1, number);
    return strdup(digits);
}

char* hexadecimal(const unsigned char* bytes, std::size_t length) {
    constexpr const char* kDigits = "0123456789abcdef";
    auto* text = static_cast<char*>(std::malloc(2 * length + 1));
    if (text == nullptr) return nullptr;
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4U];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0FU];
    }
    text[2 * length] = '\0';
    return text;
}

}  // namespace

CVekAtom::CVekAtom(const char* text)
    : CVekAtom(text == nullptr ? std::string_view() : std::string_view(text)) {}

CVekAtom::CVekAtom(std::string_view text)
    : m_type(VEK_TYPE_STRING), m_length(std::min(text.find('\0'), text.size())) {
    m_text = m_length == 0 ? nullptr : copyText(text.substr(0, m_length));
}

CVekAtom::CVekAtom(TakeOver, char* text)
    : m_type(VEK_TYPE_STRING), m_length(text == nullptr ? 0 : std::strlen(text)), m_text(text) {}

CVekAtom::CVekAtom(int value) : m_type(VEK_TYPE_INT), m_number(value) {}

CVekAtom::CVekAtom(long long value) : m_type(VEK_TYPE_INT64), m_number(value) {}

CVekAtom::CVekAtom(const unsigned char* bytes, int length)
    : m_type(VEK_TYPE_BYTES), m_length(usableLength(bytes, length)) {
    m_bytes = copyBytes(bytes, m_length);
}

CVekAtom::CVekAtom(TakeOver, unsigned char* bytes, int length)
    : m_type(VEK_TYPE_BYTES), m_length(usableLength(bytes, length)), m_bytes(bytes) {}

CVekAtom::CVekAtom(const CVekAtom& other) : m_type(other.m_type), m_length(other.m_length) {
    copyValueOf(other);
}

CVekAtom& CVekAtom::operator=(const CVekAtom& other) {
    if (this == &other) return *this;
    CVekAtom copy(other);
    std::swap(m_type, copy.m_type);
    std::swap(m_length, copy.m_length);
    std::swap(m_number, copy.m_number);  // the word, whatever it holds
    return *this;
}

CVekAtom::~CVekAtom() {
    release();
}

const char* CVekAtom::RAString() const {
    if (m_type != VEK_TYPE_STRING) return nullptr;
    return m_text == nullptr ? "" : m_text;
}

char* CVekAtom::RAStrRep() const {
    switch (m_type) {
        case VEK_TYPE_STRING:
            return strdup(RAString());
        case VEK_TYPE_BYTES:
            return hexadecimal(m_bytes, m_length);
        default:
            return decimal(m_number);
    }
}

int CVekAtom::RAInt() const {
    return static_cast<int>(RAInt64());
}

void CVekAtom::RASet(int value) {
    release();
    if (m_type != VEK_TYPE_INT64) m_type = VEK_TYPE_INT;
    m_length = 0;
    m_number = value;
}

long long CVekAtom::RAInt64() const {
    return m_type == VEK_TYPE_INT || m_type == VEK_TYPE_INT64 ? m_number : 0;
}

int CVekAtom::RAUChar(unsigned char** bytes, int* length) const {
    const bool holdsBytes = m_type == VEK_TYPE_BYTES && m_bytes != nullptr;
    if (bytes != nullptr) *bytes = holdsBytes ? m_bytes : nullptr;
    if (length != nullptr) *length = holdsBytes ? static_cast<int>(m_length) : 0;
    return holdsBytes ? kvx::kOk : kvx::kWrongAtomType;
}

void CVekAtom::copyValueOf(const CVekAtom& other) {
    if (m_type == VEK_TYPE_STRING) {
        m_text = other.m_text == nullptr ? nullptr : copyText({other.m_text, m_length});
    } else if (m_type == VEK_TYPE_BYTES) {
        m_bytes = other.m_bytes == nullptr ? nullptr : copyBytes(other.m_bytes, m_length);
    } else {
        m_number = other.m_number;
    }
}

void CVekAtom::release() noexcept {
    if (m_type == VEK_TYPE_STRING) std::free(m_text);
    if (m_type == VEK_TYPE_BYTES) std::free(m_bytes);
}
