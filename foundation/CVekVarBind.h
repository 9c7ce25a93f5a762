#pragma once

#include <memory>

#include "foundation/CVekAtom.h"
#include "foundation/CVekListable.h"

/// A name and a value. Both atoms are copies that the binding owns.
class KVX_API CVekVarBind : public CVekListable, public kvx::HeapObject {
  public:
    /// Copies both atoms; a null `value` leaves the binding without one.
    CVekVarBind(const CVekAtom& name, const CVekAtom* value);
    CVekVarBind(const CVekVarBind& other);
    CVekVarBind& operator=(const CVekVarBind& other);
    ~CVekVarBind() override;

    const CVekAtom& RVBName() const { return m_name; }
    /// Null when the binding has no value.
    const CVekAtom* RVBValue() const { return m_value.get(); }

    CVekListable* RLTargetDeepCopy(const CVekListable* source) override;

  private:
    CVekAtom m_name;
    std::unique_ptr<const CVekAtom> m_value;
};
