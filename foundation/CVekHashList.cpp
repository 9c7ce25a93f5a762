#include "foundation/CVekHashList.h"

#include <algorithm>

#include "foundation/ErrorCodes.h"
#include "foundation/PointerIndex.h"

namespace {

using kvx::PointerIndex;

// Upper bound of what a caller's `size` reserves; larger lists grow as they fill.
constexpr int kMostSlotsReserved = 65'536;

}  // namespace

CVekHashList::CVekHashList(int size, __boolean /*reserved*/)
    : m_entries(std::make_unique<PointerIndex>(false, std::clamp(size, 1, kMostSlotsReserved))) {}

CVekHashList::~CVekHashList() = default;

int CVekHashList::RHLAdd(unsigned long key, CVekPointer* entry) {
    return m_entries->add(PointerIndex::keyOf(key), entry);
}

int CVekHashList::RHLAdd(const char* key, CVekPointer* entry) {
    if (key == nullptr) return kvx::kInvalidArgument;
    return m_entries->add(PointerIndex::keyOf(key), entry);
}

CVekPointer* CVekHashList::RHLGet(unsigned long key) const {
    return m_entries->first(PointerIndex::keyOf(key));
}

CVekPointer* CVekHashList::RHLGet(const char* key) const {
    return key == nullptr ? nullptr : m_entries->first(PointerIndex::keyOf(key));
}

int CVekHashList::RHLDelete(unsigned long key, CVekPointer* entry) {
    const bool isThere = entry != nullptr && RHLGet(key) == entry;
    return isThere ? m_entries->removeAll(PointerIndex::keyOf(key)) : kvx::kNotFound;
}

int CVekHashList::RHLDelete(const char* key, CVekPointer* entry) {
    const bool isThere = entry != nullptr && RHLGet(key) == entry;
    return isThere ? m_entries->removeAll(PointerIndex::keyOf(key)) : kvx::kNotFound;
}

CVekDoubleList* CVekHashList::RHLIterator() const {
    return m_entries->list();
}

int CVekHashList::RHLLength() const {
    return static_cast<int>(m_entries->size());
}
