#include "foundation/CVekHashStore.h"

#include <algorithm>
#include <new>

#include "foundation/ErrorCodes.h"

namespace {

// A caller's guess is believed up to here; larger stores grow as they fill.
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
