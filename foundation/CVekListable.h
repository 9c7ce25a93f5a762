#pragma once

#include "platform/Export.h"

class CVekDoubleList;

/// Base of everything that can stand in a `CVekDoubleList`. An element stands in one list at a
/// time; one that is deleted while it stands in a list leaves that list by itself.
class KVX_API CVekListable {
  public:
    virtual ~CVekListable();

    /// Returns a new deep copy of `source`, which must be of this object's own class, or null when
    /// the class cannot be copied. The caller owns the result.
    virtual CVekListable* RLTargetDeepCopy(const CVekListable* source) = 0;

  protected:
    CVekListable() = default;
    /// A copy stands in no list.
    CVekListable(const CVekListable&) {}
    CVekListable& operator=(const CVekListable&) { return *this; }

  private:
    friend class CVekDoubleList;

    // Where the element stands; all null while it stands in no list.
    struct Place {
        CVekDoubleList* list = nullptr;
        CVekListable* previous = nullptr;
        CVekListable* next = nullptr;
    };

    Place m_place;
};
