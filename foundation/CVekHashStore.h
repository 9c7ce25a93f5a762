#pragma once

#include <unordered_map>

#include "foundation/Boolean.h"
#include "platform/Export.h"

/// One entry of a `CVekHashStore`. It belongs to the store.
class KVX_API CVekHashNode {
  public:
    CVekHashNode(unsigned long key, void* object) : m_key(key), m_object(object) {}

    unsigned long RHNKey() const { return m_key; }
    void* RHNObject() const { return m_object; }

  private:
    unsigned long m_key;
    void* m_object;
};

/// A hash table from numbers to untyped pointers, which may be null. It never deletes an object.
/// Not thread-safe.
class KVX_API CVekHashStore {
  public:
    /// `size` is the number of entries expected; the store grows past it. The other arguments are
    /// ignored.
    explicit CVekHashStore(int size = 1, __boolean reserved1 = FALSE, __boolean reserved2 = TRUE,
                           int reserved3 = 0);

    /// Returns 1, -220566 when the key exists (the first object stays), or -220553 without memory.
    int RHSAddObjectAt(unsigned long key, void* object);
    /// The entry under `key`, valid while the store lives; null when absent.
    CVekHashNode* RHSRetrieveObject(unsigned long key) const;
    int RHSLength() const { return static_cast<int>(m_nodes.size()); }

  private:
    // `RHSRetrieveObject` is const and returns a mutable entry: that is its contract.
    mutable std::unordered_map<unsigned long, CVekHashNode> m_nodes;
};
