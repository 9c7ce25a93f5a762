#pragma once

#include "platform/Export.h"

class CVekDoubleList;

/// Base of the elements of a `CVekDoubleList`. An element is in at most one list; its destructor
/// removes it from that list.
class KVX_API CVekListable {
  public:
    virtual ~CVekListable();

    /// Returns a new deep copy of `source`, which must be of this object's own class, or null when
    /// the class cannot be copied. The caller owns the result.
    virtual CVekListable* RLTargetDeepCopy(const CVekListable* source) = 0;

  protected:
    CVekListable() = default;
    /// A copy is in no list.
    CVekListable(const CVekListable&) {}
    CVekListable& operator=(const CVekListable&) { return *this; }

  private:
    friend class CVekDoubleList;

    // The element's list and neighbours; all null while it is in no list.
    struct Place {
        CVekDoubleList* list = nullptr;
        CVekListable* previous = nullptr;
        CVekListable* next = nullptr;
    };

    Place m_place;
};
