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

/// A hash table from numbers to untyped pointers, null among them. It deletes no object that it
/// holds. Not thread-safe.
class KVX_API CVekHashStore {
  public:
    /// `size` is the number of entries expected; the store grows past it. The other arguments are
    /// kept for callers that state them and change nothing.
    explicit CVekHashStore(int size = 1, __boolean reserved1 = FALSE, __boolean reserved2 = TRUE,
                           int reserved3 = 0);

    /// Returns 1, -220566 when the key is there already (the first object stays), or -220553
    /// without memory.
    int RHSAddObjectAt(unsigned long key, void* object);
    /// The entry under `key`, valid while the store lives; null when absent.
    CVekHashNode* RHSRetrieveObject(unsigned long key) const;
    int RHSLength() const { return static_cast<int>(m_nodes.size()); }

  private:
    // Retrieving from a constant store hands out a changeable entry, as the contract has it.
    mutable std::unordered_map<unsigned long, CVekHashNode> m_nodes;
};
