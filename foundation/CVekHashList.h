#pragma once

#include <concepts>
#include <memory>

#include "foundation/Boolean.h"
#include "foundation/CVekDoubleList.h"
#include "foundation/CVekPointer.h"

namespace kvx {
class PointerIndex;
}

/// A hash table of `CVekPointer`s, keyed by number or by text; a number key never equals a text
/// key. The list owns the holders, never the pointees. Lookups take constant time at any size. Not
/// thread-safe.
class KVX_API CVekHashList {
  public:
    /// `size` is the number of entries expected; below 1 counts as 1. The list grows past it. The
    /// second argument is ignored.
    explicit CVekHashList(int size = 1, __boolean reserved = FALSE);
    CVekHashList(int size, bool reserved) : CVekHashList(size, reserved ? TRUE : FALSE) {}
    ~CVekHashList();
    CVekHashList(const CVekHashList&) = delete;
    CVekHashList& operator=(const CVekHashList&) = delete;

    /// Takes ownership of `entry` and returns 1. Returns -220566 when the key exists, -220552 for a
    /// null key or entry and -220553 without memory; the caller then keeps `entry`.
    int RHLAdd(unsigned long key, CVekPointer* entry);
    int RHLAdd(const char* key, CVekPointer* entry);

    /// The holder under `key`, which the list still owns; null when absent.
    CVekPointer* RHLGet(unsigned long key) const;
    CVekPointer* RHLGet(const char* key) const;

    /// Removes the entry and deletes its holder, not the pointee; returns 1. Returns -220547 when
    /// the key is absent or holds another entry.
    int RHLDelete(unsigned long key, CVekPointer* entry);
    int RHLDelete(const char* key, CVekPointer* entry);

    /// A new list of new holders of the same pointees, in the order in which they were added. The
    /// caller deletes it.
    CVekDoubleList* RHLIterator() const;

    int RHLLength() const;

    /// Number keys of any other integer type, such as a literal 0.
    template <std::integral Number>
    int RHLAdd(Number key, CVekPointer* entry) {
        return RHLAdd(static_cast<unsigned long>(key), entry);
    }
    template <std::integral Number>
    CVekPointer* RHLGet(Number key) const {
        return RHLGet(static_cast<unsigned long>(key));
    }
    template <std::integral Number>
    int RHLDelete(Number key, CVekPointer* entry) {
        return RHLDelete(static_cast<unsigned long>(key), entry);
    }

  private:
    std::unique_ptr<kvx::PointerIndex> m_entries;
};
