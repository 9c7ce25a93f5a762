#pragma once

#include "foundation/CVekListable.h"
#include "foundation/HeapObject.h"

namespace kvx {
class PointerIndex;
}

/// Holder of one untyped pointer, for the containers. Deleting the holder does not delete the
/// pointee.
class KVX_API CVekPointer : public CVekListable, public kvx::HeapObject {
  public:
    explicit CVekPointer(void* data = nullptr) : m_data(data) {}
    CVekPointer(const CVekPointer& other)
        : CVekListable(other), kvx::HeapObject(other), m_data(other.m_data) {}
    CVekPointer& operator=(const CVekPointer& other) {
        RPSetData(other.m_data);
        return *this;
    }
    ~CVekPointer() override;

    void* RPData() const { return m_data; }
    void RPSetData(void* data) {
        m_data = data;
        if (m_isChanged != nullptr) *m_isChanged = true;
    }

    /// A new holder of the same pointee.
    CVekListable* RLTargetDeepCopy(const CVekListable* source) override;

  private:
    friend class kvx::PointerIndex;

    void* m_data;
    bool* m_isChanged = nullptr;  // set for the index that finds the holder by its pointee
};
