#pragma once

#include "foundation/CVekListable.h"
#include "foundation/HeapObject.h"

/// Holder of one untyped pointer, so that anything can stand in the containers. Deleting the holder
/// does not delete the pointee.
class KVX_API CVekPointer : public CVekListable, public kvx::HeapObject {
  public:
    explicit CVekPointer(void* data = nullptr) : m_data(data) {}

    void* RPData() const { return m_data; }
    void RPSetData(void* data) { m_data = data; }

    /// A new holder of the same pointee.
    CVekListable* RLTargetDeepCopy(const CVekListable* source) override;

  private:
    void* m_data;
};
