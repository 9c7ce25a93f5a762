#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/CVekAtom.h"
#include "foundation/CVekListable.h"

/// A list of named atoms, in the order in which the names were first added. The record owns the
/// atoms. Not thread-safe.
class KVX_API CVekBaseRecord : public CVekListable {
  public:
    CVekBaseRecord() = default;
    /// Deep copy.
    CVekBaseRecord(const CVekBaseRecord& other);
    CVekBaseRecord& operator=(const CVekBaseRecord& other);
    ~CVekBaseRecord() override;

    /// Adds the field, or replaces the value of the field of that name, and returns 1. Takes
    /// ownership of `value`; the replaced value is deleted, unless it is the same pointer. Returns
    /// -220402 when either argument is null and -220553 without memory; the record is then
    /// unchanged and does not take `value`. `value` must have no other owner, such as another
    /// field.
    int RRAddOrSetValue(const char* name, const CVekAtom* value);

    /// The value of the field, which the record still owns; null when absent.
    const CVekAtom* RRGetValue(const char* name) const;

    /// Fields by position; null outside 0 to `RRSize()` - 1.
    int RRSize() const { return static_cast<int>(m_fields.size()); }
    const char* RRNameAt(int position) const;
    const CVekAtom* RRValueAt(int position) const;

    /// Encodes the record into one new `malloc`ed buffer that the caller releases with `free`, and
    /// returns 1. The encoding is MessagePack, so that any language can read it: an array of
    /// [name, value] pairs in field order, with texts as str, 32-bit integers in the smallest form,
    /// 64-bit integers always as int 64 and byte strings as bin. Returns -220402 for null outputs,
    /// -220439 when the record has more than 65,535 fields or its
    /// encoding would exceed 2 GiB, and -220553 without memory; both outputs are
    /// null and 0 then.
    int ROMEncode(unsigned char** bytes, int* length) const;

    /// Decodes a record that the caller owns. Safe on any bytes. Returns null for any other form
    /// than the above, a text with a zero byte inside, an integer that does not fit, more than
    /// 65,535 fields, and bytes left over. When a name occurs twice, the last value takes the
    /// position of the first.
    static CVekBaseRecord* ROMDecode(const unsigned char* bytes, int length);

    CVekListable* RLTargetDeepCopy(const CVekListable* source) override;

  private:
    struct Field {
        std::string name;
        std::unique_ptr<const CVekAtom> value;
    };

    // The position of the field; the number of fields when there is none.
    std::size_t find(std::string_view name) const;
    // Takes ownership of `value` unless it throws; the record is then unchanged.
    void set(std::string_view name, std::unique_ptr<const CVekAtom>& value);
    void indexLastField();

    std::vector<Field> m_fields;
    // Positions by name; empty while a linear search is faster. A tree, so that no choice of names
    // makes it slow.
    std::map<std::string, std::size_t, std::less<>> m_index;
};
