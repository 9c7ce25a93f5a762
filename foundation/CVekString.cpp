// The text is always in memory from `malloc`, so that it can be handed over without a copy.

#include "foundation/CVekString.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <utility>

#include "foundation/ErrorCodes.h"

CVekString::CVekString(const char* text) {
    if (text != nullptr) append(text, std::strlen(text));
}

CVekString::CVekString(const CVekAtom* atom) {
    if (atom == nullptr) return;
    m_text = atom->RAStrRep();
    m_length = m_text == nullptr ? 0 : std::strlen(m_text);
    m_capacity = m_length;
}

CVekString::CVekString(const CVekString& other) {
    append(other.RSString(), other.m_length);
}

CVekString::CVekString(CVekString&& other) noexcept
    : m_text(std::exchange(other.m_text, nullptr)),
      m_length(std::exchange(other.m_length, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

CVekString& CVekString::operator=(const CVekString& other) {
    if (this != &other) *this = CVekString(other);
    return *this;
}

CVekString& CVekString::operator=(CVekString&& other) noexcept {
    std::swap(m_text, other.m_text);
    std::swap(m_length, other.m_length);
    std::swap(m_capacity, other.m_capacity);
    return *this;
}

CVekString::~CVekString() {
    std::free(m_text);
}

int CVekString::RSStrCat(const char* text) {
    return text == nullptr ? kvx::kInvalidArgument : append(text, std::strlen(text));
}

int CVekString::RSStrCat(char character) {
    return character == '\0' ? kvx::kInvalidArgument : append(&character, 1);
}

int CVekString::RSStrCat(int number) {
    return appendNumber(number);
}

int CVekString::RSStrCat(long number) {
    return appendNumber(number);
}

int CVekString::RSStrCat(long long number) {
    return appendNumber(number);
}

int CVekString::RSStrCat(unsigned int number) {
    return appendNumber(number);
}

int CVekString::RSStrCat(unsigned long number) {
    return appendNumber(number);
}

int CVekString::RSStrCat(unsigned long long number) {
    return appendNumber(number);
}

const char* CVekString::RSString() const {
    return m_text == nullptr ? "" : m_text;
}

char* CVekString::RSStringCopy() const {
    return strdup(RSString());
}

char* CVekString::RSTakeString() {
    if (m_text == nullptr) return strdup("");
    m_length = 0;
    m_capacity = 0;
    return std::exchange(m_text, nullptr);
}

template <class Number>
int CVekString::appendNumber(Number number) {
    char digits[std::numeric_limits<Number>::digits10 + 2];  // and a sign
    const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    return append(digits, static_cast<std::size_t>(end - digits));
}

// `text` may lie inside this string.
int CVekString::append(const char* text, std::size_t length) {
    if (length == 0) return kvx::kOk;
    const std::less<> before;
    const bool isOwn =
        m_text != nullptr && !before(text, m_text) && before(text, m_text + m_length);
    const std::size_t offset = isOwn ? text - m_text : 0;
    if (!reserve(m_length + length)) return kvx::kNoMemory;
    std::memmove(m_text + m_length, isOwn ? m_text + offset : text, length);
    m_length += length;
    m_text[m_length] = '\0';
    return kvx::kOk;
}

bool CVekString::reserve(std::size_t length) {
    if (m_text != nullptr && length <= m_capacity) return true;
    const std::size_t capacity = std::max(length, 2 * m_capacity);
    auto* grown = static_cast<char*>(std::realloc(m_text, capacity + 1));
    if (grown == nullptr) return false;
    m_text = grown;
    m_capacity = capacity;
    return true;
}
