// The containers of untyped pointers: a bag, a stack with two ends, and a table by number.

#include <algorithm>
#include <new>

#include "foundation/CVekBag.h"
#include "foundation/CVekHashStore.h"
#include "foundation/CVekStack.h"
#include "foundation/ErrorCodes.h"

void CVekBag::RBAdd(void* element) {
    m_elements.push_back(element);
}

void* CVekBag::RBGet(unsigned index) const {
    return index < m_elements.size() ? m_elements[index] : nullptr;
}

int CVekStack::RSPush(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    try {
        m_elements.push_back(element);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

int CVekStack::RSPushBottom(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    try {
        m_elements.push_front(element);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

void* CVekStack::RSPop() {
    if (m_elements.empty()) return nullptr;
    void* element = m_elements.front();
    m_elements.pop_front();
    return element;
}

namespace {

// Upper bound of what a caller's `size` reserves; larger stores grow as they fill.
constexpr int kMostNodesReserved = 65'536;

}  // namespace

CVekHashStore::CVekHashStore(int size, __boolean /*reserved1*/, __boolean /*reserved2*/,
                             int /*reserved3*/) {
    m_nodes.reserve(std::clamp(size, 1, kMostNodesReserved));
}

int CVekHashStore::RHSAddObjectAt(unsigned long key, void* object) {
    try {
        const bool isNew = m_nodes.try_emplace(key, key, object).second;
        return isNew ? kvx::kOk : kvx::kKeyPresent;
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
}

CVekHashNode* CVekHashStore::RHSRetrieveObject(unsigned long key) const {
    const auto found = m_nodes.find(key);
    return found == m_nodes.end() ? nullptr : &found->second;
}
