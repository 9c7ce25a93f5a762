#pragma once

#include <cstddef>

#include "foundation/CVekAtom.h"

/// A growable text. Not thread-safe.
class KVX_API CVekString {
  public:
    CVekString() = default;
    /// Copies `text`; null makes an empty text.
    CVekString(const char* text);
    /// The text form of `atom` (`CVekAtom::RAStrRep`); null makes an empty text.
    CVekString(const CVekAtom* atom);
    CVekString(const CVekString& other);
    CVekString(CVekString&& other) noexcept;
    CVekString& operator=(const CVekString& other);
    CVekString& operator=(CVekString&& other) noexcept;
    ~CVekString();

    /// Appends a text (which may lie in this string), a character, or a number in decimal. Returns
    /// 1; -220552 for a null text and for a zero character, and -220553 without memory. The text is
    /// unchanged after a failure.
    int RSStrCat(const char* text);
    int RSStrCat(char character);
    int RSStrCat(int number);
    int RSStrCat(long number);
    int RSStrCat(long long number);
    int RSStrCat(unsigned int number);
    int RSStrCat(unsigned long number);
    int RSStrCat(unsigned long long number);

    /// The current text, which the string owns; never null. Valid until the string changes.
    const char* RSString() const;
    /// A new copy that the caller releases with `free`.
    char* RSStringCopy() const;
    /// Hands the buffer over to the caller, who releases it with `free`, and leaves the string
    /// empty.
    char* RSTakeString();
    /// The length in bytes.
    std::size_t RSLength() const { return m_length; }

  private:
    int append(const char* text, std::size_t length);
    template <class Number>
    int appendNumber(Number number);
    bool reserve(std::size_t length);

    char* m_text = nullptr;  // malloc'ed and terminated, or null for an empty text
    std::size_t m_length = 0;
    std::size_t m_capacity = 0;  // of m_text, without the terminator
};
