#pragma once

#include <memory>
#include <vector>

#include "foundation/CVekAtom.h"

/// A growable vector that owns its atoms. Not thread-safe.
class KVX_API CVekAtomVector {
  public:
    /// Reserves `capacity` places.
    explicit CVekAtomVector(unsigned capacity = 0);
    /// Deep copy.
    CVekAtomVector(const CVekAtomVector& other);
    CVekAtomVector& operator=(const CVekAtomVector& other);
    /// Deletes the atoms.
    ~CVekAtomVector();

    unsigned RAVSize() const { return static_cast<unsigned>(m_atoms.size()); }
    /// The atom at `index`, which the vector still owns; null past the end.
    CVekAtom* RAVGetValue(unsigned index) const;
    /// Takes ownership of `atom` and returns 1. Returns -220402 for null, and -220553 without
    /// memory (the caller keeps the atom).
    int RAVAddToEnd(CVekAtom* atom);
    /// Reserves places for `capacity` atoms in all. Returns 1, or -220553 without memory.
    int RAVMakeSpace(unsigned capacity);
    /// Empties the vector without deleting the atoms; the caller owns them.
    void RAVReset();

  private:
    std::vector<std::unique_ptr<CVekAtom>> m_atoms;
};
