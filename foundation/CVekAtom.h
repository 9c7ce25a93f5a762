#pragma once

#include <concepts>
#include <cstddef>
#include <string_view>

#include "foundation/HeapObject.h"
#include "platform/Export.h"

/// The kinds of value that an atom can hold.
enum EVekDataType { VEK_TYPE_STRING = 1, VEK_TYPE_INT = 2, VEK_TYPE_INT64 = 3, VEK_TYPE_BYTES = 5 };

/// A typed value: a text, an integer of 32 or 64 bits, or a byte string.
///
/// An atom owns its value. The constructor's argument type decides whether it copies:
///
/// | argument                              | the atom                                      |
/// |---------------------------------------|-----------------------------------------------|
/// | `const char*`, literal, `char` array  | copies                                        |
/// | `char*`                               | takes ownership (from `malloc`)               |
/// | `const unsigned char*` or an array    | copies                                        |
/// | `unsigned char*`                      | takes ownership (from `malloc`)               |
///
/// So cast a `char*` into other memory, such as `std::string::data()`, to `const char*`.
///
/// Texts and bytes that it returns belong to it and are valid until it is changed or destroyed. Any
/// number of threads may read one atom; changing it needs the caller's lock.
class KVX_API CVekAtom : public kvx::HeapObject {
  public:
    /// A text. Copies `text`; null makes an empty text.
    CVekAtom(const char* text);
    /// A text. Takes ownership of `text`, a `char*`, which must come from `malloc`; null makes an
    /// empty text. An array is copied by the constructor above.
    template <std::same_as<char*> Text>
    CVekAtom(const Text& text) : CVekAtom(TakeOver(), text) {}
    /// A text. Copies `text` up to a zero byte in it.
    explicit CVekAtom(std::string_view text);
    CVekAtom(int value);
    CVekAtom(long long value);
    /// A byte string. Copies `length` bytes; a negative length counts as 0. An empty byte string
    /// has length 0 and a pointer that is not null.
    CVekAtom(const unsigned char* bytes, int length);
    /// A byte string. Takes ownership of `bytes`, an `unsigned char*`, which must come from
    /// `malloc`. Null makes an atom without bytes. An array is copied.
    template <std::same_as<unsigned char*> Bytes>
    CVekAtom(const Bytes& bytes, int length) : CVekAtom(TakeOver(), bytes, length) {}
    /// Deep copy.
    CVekAtom(const CVekAtom& other);
    CVekAtom& operator=(const CVekAtom& other);
    ~CVekAtom();

    EVekDataType RAType() const { return m_type; }

    /// The text of a text atom, else null.
    const char* RAString() const;

    /// The text form of any atom: texts as they are, integers in decimal, bytes in lower-case
    /// hexadecimal. The caller releases the result with `free`; null when there is no memory.
    char* RAStrRep() const;

    /// The value of an integer atom (the low 32 bits of a 64-bit one); 0 for any other kind.
    int RAInt() const;

    /// Sets an integer atom, which keeps its width; an atom of another kind becomes a 32-bit
    /// integer.
    void RASet(int value);

    /// The value of either integer kind; 0 for any other kind.
    long long RAInt64() const;

    /// Gives the bytes of a byte-string atom, which still owns them, and returns 1. Returns
    /// -220532, with null and 0 in the outputs, when the atom holds no bytes: it is of another
    /// kind, or took over a null pointer.
    int RAUChar(unsigned char** bytes, int* length) const;

    /// The bytes of a text (without the terminator) or of a byte string; 0 for an integer.
    std::size_t RALength() const { return m_length; }

  private:
    struct TakeOver {};
    CVekAtom(TakeOver, char* text);
    CVekAtom(TakeOver, unsigned char* bytes, int length);

    void copyValueOf(const CVekAtom& other);
    void release() noexcept;

    EVekDataType m_type;
    std::size_t m_length = 0;  // of a text or a byte string
    union {
        char* m_text;  // null for an empty text
        long long m_number;
        unsigned char* m_bytes;
    };
};
