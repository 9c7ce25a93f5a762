#pragma once

#include "foundation/CVekDoubleList.h"
#include "foundation/CVekVarBind.h"

/// A list that owns its bindings. Not thread-safe.
class KVX_API CVekVBList : public CVekDoubleList {
  public:
    /// Takes ownership of `binding` and returns 1; see `CVekDoubleList::RDLAddToListEnd`.
    int RVBLAddToListEnd(CVekVarBind* binding);
    CVekVarBind* RVBLHead() const;
    CVekVarBind* RVBLGetNext(const CVekVarBind* binding) const;
};
