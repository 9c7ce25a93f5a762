#pragma once

#include "foundation/CVekListable.h"
#include "foundation/HeapObject.h"

/// A doubly linked list that owns its elements. Not thread-safe. An element's destructor may change
/// the list, its `RLTargetDeepCopy` must not.
///
/// Appending, stepping and deleting take constant time whatever the length.
class KVX_API CVekDoubleList : public kvx::HeapObject {
  public:
    CVekDoubleList() = default;
    /// Copies every element through its `RLTargetDeepCopy`; elements that refuse are left out.
    CVekDoubleList(const CVekDoubleList& other);
    /// The same; the old elements are deleted after all copies have been made.
    CVekDoubleList& operator=(const CVekDoubleList& other);
    /// Deletes the elements, the first one first.
    virtual ~CVekDoubleList();

    /// Takes ownership of `element` and returns 1. Returns -220552 for null and for an element that
    /// is in a list already; the caller keeps it.
    int RDLAddToListEnd(CVekListable* element);

    /// The first element, or null.
    CVekListable* RDLHead() const { return m_head; }

    /// The element after `element`, which must be in this list; null after the last.
    CVekListable* RDLGetNext(const CVekListable* element) const;

    int RDLLength() const { return m_length; }

    /// Removes and deletes a live `element` and returns 1; returns -220547, and deletes nothing,
    /// when it is not in this list.
    int RDLDeleteListable(CVekListable* element);

    /// The same for a pointer that may be dangling: searches the list (linear time) and does not
    /// dereference `element` unless it is found.
    int RDLAttemptToDeleteListable(CVekListable* element);

    /// Removes a live `element` without deleting it: the caller owns it again. Returns 1 or
    /// -220547.
    int RDLTakeListable(CVekListable* element);

    /// Deletes all elements, the first one first.
    void RDLClear();

  private:
    friend class CVekListable;

    void unlink(CVekListable* element) noexcept;

    CVekListable* m_head = nullptr;
    CVekListable* m_tail = nullptr;
    int m_length = 0;
};
