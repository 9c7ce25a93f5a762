#pragma once

#include <cstddef>
#include <memory>

#include "foundation/Boolean.h"
#include "foundation/CVekAtom.h"
#include "foundation/CVekDoubleList.h"
#include "foundation/CVekPointer.h"

namespace kvx {
class PointerIndex;
}

/// A map of `CVekPointer`s keyed by text or by number; a number key never equals a text key. The
/// list owns the holders, never the pointees. Lookups take constant time at any size; adding and
/// removing take at most logarithmic time in the values of the key. Not thread-safe.
class KVX_API CVekTreeList {
  public:
    /// With FALSE every key is unique; with TRUE a key may hold several values.
    explicit CVekTreeList(__boolean multiple = FALSE);
    explicit CVekTreeList(bool multiple) : CVekTreeList(multiple ? TRUE : FALSE) {}
    ~CVekTreeList();
    CVekTreeList(const CVekTreeList&) = delete;
    CVekTreeList& operator=(const CVekTreeList&) = delete;

    /// Takes ownership of `entry` and returns 1. Returns -220566 when the key of a unique list
    /// exists, -220552 for a null key or entry and -220553 without memory; the caller then keeps
    /// `entry`.
    int RTLAdd(const char* key, CVekPointer* entry);
    int RTLAdd(int key, CVekPointer* entry);
    /// The same with a new holder of `value`, which may be null.
    int RTLAdd(const char* key, void* value);
    int RTLAdd(int key, void* value);
    int RTLAdd(const char* key, std::nullptr_t) { return RTLAdd(key, static_cast<void*>(nullptr)); }
    int RTLAdd(int key, std::nullptr_t) { return RTLAdd(key, static_cast<void*>(nullptr)); }

    /// The first holder under `key`, which the list still owns; null when absent.
    CVekPointer* RTLGet(const char* key) const;
    CVekPointer* RTLGet(int key) const;

    /// Removes all entries under `key` and deletes their holders, not the pointees. Returns 1, or
    /// -220547 when the key is absent.
    int RTLDelete(const char* key);
    int RTLDelete(int key);
    /// The same by a text atom or an integer atom; -220552 for null and for a byte string.
    int RTLDelete(const CVekAtom* key);
    /// Removes the first entry under `key` whose pointee (or whose holder) is `value`. Returns 1,
    /// or -220547 when there is none.
    int RTLDelete(const char* key, void* value);
    int RTLDelete(int key, void* value);

    /// TRUE when the key holds more than one value.
    __boolean RTLIsMultiple(const CVekAtom* key) const;

    /// The values of one key, and all values: a new list of new holders of the same pointees, in
    /// the order in which they were added; empty when there is none. The caller deletes it.
    CVekDoubleList* RTLGetMult(const char* key) const;
    CVekDoubleList* RTLGetMult(int key) const;
    CVekDoubleList* RTLIterator() const;

    int RTLLength() const;

  private:
    std::unique_ptr<kvx::PointerIndex> m_entries;
};
