#include "foundation/CVekVBList.h"

#include "foundation/CVekVarBind.h"

int CVekVBList::RVBLAddToListEnd(CVekVarBind* binding) {
    return RDLAddToListEnd(binding);
}

CVekVarBind* CVekVBList::RVBLHead() const {
    return dynamic_cast<CVekVarBind*>(RDLHead());
}

CVekVarBind* CVekVBList::RVBLGetNext(const CVekVarBind* binding) const {
    return dynamic_cast<CVekVarBind*>(RDLGetNext(binding));
}

namespace {

std::unique_ptr<const CVekAtom> copyOrNull(const CVekAtom* atom) {
    return atom == nullptr ? nullptr : std::make_unique<const CVekAtom>(*atom);
}

}  // namespace

CVekVarBind::CVekVarBind(const CVekAtom& name, const CVekAtom* value)
    : m_name(name), m_value(copyOrNull(value)) {}

CVekVarBind::CVekVarBind(const CVekVarBind& other)
    : CVekListable(other),
      kvx::HeapObject(other),
      m_name(other.m_name),
      m_value(copyOrNull(other.m_value.get())) {}

CVekVarBind& CVekVarBind::operator=(const CVekVarBind& other) {
    if (this == &other) return *this;
    auto value = copyOrNull(other.m_value.get());
    m_name = other.m_name;
    m_value = std::move(value);
    return *this;
}

CVekVarBind::~CVekVarBind() = default;

CVekListable* CVekVarBind::RLTargetDeepCopy(const CVekListable* source) {
    const auto* original = dynamic_cast<const CVekVarBind*>(source);
    return original == nullptr ? nullptr : new CVekVarBind(*original);
}
