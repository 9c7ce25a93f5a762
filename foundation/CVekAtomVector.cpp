#include "foundation/CVekAtomVector.h"

#include <new>
#include <stdexcept>

#include "foundation/ErrorCodes.h"

CVekAtomVector::CVekAtomVector(unsigned capacity) {
    RAVMakeSpace(capacity);
}

CVekAtomVector::CVekAtomVector(const CVekAtomVector& other) {
    m_atoms.reserve(other.m_atoms.size());
    for (const auto& atom : other.m_atoms) m_atoms.emplace_back(new CVekAtom(*atom));
}

CVekAtomVector& CVekAtomVector::operator=(const CVekAtomVector& other) {
    if (this == &other) return *this;
    CVekAtomVector copy(other);
    m_atoms.swap(copy.m_atoms);
    return *this;
}

CVekAtomVector::~CVekAtomVector() = default;

CVekAtom* CVekAtomVector::RAVGetValue(unsigned index) const {
    return index < m_atoms.size() ? m_atoms[index].get() : nullptr;
}

int CVekAtomVector::RAVAddToEnd(CVekAtom* atom) {
    if (atom == nullptr) return kvx::kMissingArgument;
    try {
        m_atoms.emplace_back();
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    m_atoms.back().reset(atom);
    return kvx::kOk;
}

int CVekAtomVector::RAVMakeSpace(unsigned capacity) {
    try {
        m_atoms.reserve(capacity);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    } catch (const std::length_error&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

void CVekAtomVector::RAVReset() {
    for (auto& atom : m_atoms) static_cast<void>(atom.release());
    m_atoms.clear();
}
