#pragma once

#include <deque>

#include "platform/Export.h"

/// A double-ended queue. `RSPush` appends at the back, `RSPushBottom` inserts at the front, `RSPop`
/// takes from the front. It never deletes an element. Not thread-safe.
class KVX_API CVekStack {
  public:
    /// Holds at most `bound` elements; negative for no bound.
    explicit CVekStack(int bound = -1) : m_bound(bound) {}

    /// Appends at the back. Returns 1, -220439 when the stack is full, or -220553 without memory.
    int RSPush(void* element);
    /// Inserts at the front. The same results.
    int RSPushBottom(void* element);
    /// Removes and returns the element at the front; null when empty.
    void* RSPop();
    int RSLength() const { return static_cast<int>(m_elements.size()); }

  private:
    bool isFull() const { return m_bound >= 0 && RSLength() >= m_bound; }

    int m_bound;
    std::deque<void*> m_elements;
};
