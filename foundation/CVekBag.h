#pragma once

#include <vector>

#include "platform/Export.h"

/// An unordered collection of untyped pointers. It never deletes an element. Not thread-safe.
class KVX_API CVekBag {
  public:
    void RBAdd(void* element);
    unsigned RBSize() const { return static_cast<unsigned>(m_elements.size()); }
    /// The element at `index`; null past the end.
    void* RBGet(unsigned index) const;

  private:
    std::vector<void*> m_elements;
};
