// Makes keys from texts, numbers and atoms; PointerIndex finds the holders.

#include "foundation/CVekTreeList.h"

#include <new>

#include "foundation/ErrorCodes.h"
#include "foundation/PointerIndex.h"

namespace {

using TreeKey = kvx::PointerIndex::KeyView;

// Negative numbers are keys too; they and their 64-bit form are one key.
TreeKey treeKey(long long number) {
    return kvx::PointerIndex::keyOf(static_cast<unsigned long>(number));
}

TreeKey treeKey(const char* text) {
    return kvx::PointerIndex::keyOf(std::string_view(text));
}

TreeKey treeKey(const CVekAtom& atom) {
    const char* text = atom.RAString();
    return text != nullptr ? treeKey(text) : treeKey(atom.RAInt64());
}

bool isTreeKey(const CVekAtom* atom) {
    return atom != nullptr && atom->RAType() != VEK_TYPE_BYTES;
}

int addValue(kvx::PointerIndex& entries, TreeKey key, void* value) {
    std::unique_ptr<CVekPointer> holder(new (std::nothrow) CVekPointer(value));
    if (holder == nullptr) return kvx::kNoMemory;
    const int result = entries.add(key, holder.get());
    if (result == kvx::kOk) static_cast<void>(holder.release());
    return result;
}

}  // namespace

CVekTreeList::CVekTreeList(__boolean multiple)
    : m_entries(std::make_unique<kvx::PointerIndex>(multiple == TRUE, 0)) {}

CVekTreeList::~CVekTreeList() = default;

int CVekTreeList::RTLAdd(const char* key, CVekPointer* entry) {
    return key == nullptr ? kvx::kInvalidArgument : m_entries->add(treeKey(key), entry);
}

int CVekTreeList::RTLAdd(int key, CVekPointer* entry) {
    return m_entries->add(treeKey(key), entry);
}

int CVekTreeList::RTLAdd(const char* key, void* value) {
    return key == nullptr ? kvx::kInvalidArgument : addValue(*m_entries, treeKey(key), value);
}

int CVekTreeList::RTLAdd(int key, void* value) {
    return addValue(*m_entries, treeKey(key), value);
}

CVekPointer* CVekTreeList::RTLGet(const char* key) const {
    return key == nullptr ? nullptr : m_entries->first(treeKey(key));
}

CVekPointer* CVekTreeList::RTLGet(int key) const {
    return m_entries->first(treeKey(key));
}

int CVekTreeList::RTLDelete(const char* key) {
    return key == nullptr ? kvx::kInvalidArgument : m_entries->removeAll(treeKey(key));
}

int CVekTreeList::RTLDelete(int key) {
    return m_entries->removeAll(treeKey(key));
}

int CVekTreeList::RTLDelete(const CVekAtom* key) {
    return isTreeKey(key) ? m_entries->removeAll(treeKey(*key)) : kvx::kInvalidArgument;
}

int CVekTreeList::RTLDelete(const char* key, void* value) {
    return key == nullptr ? kvx::kInvalidArgument : m_entries->removeOne(treeKey(key), value);
}

int CVekTreeList::RTLDelete(int key, void* value) {
    return m_entries->removeOne(treeKey(key), value);
}

__boolean CVekTreeList::RTLIsMultiple(const CVekAtom* key) const {
    return isTreeKey(key) && m_entries->count(treeKey(*key)) > 1 ? TRUE : FALSE;
}

CVekDoubleList* CVekTreeList::RTLGetMult(const char* key) const {
    return key == nullptr ? new CVekDoubleList : m_entries->list(treeKey(key));
}

CVekDoubleList* CVekTreeList::RTLGetMult(int key) const {
    return m_entries->list(treeKey(key));
}

CVekDoubleList* CVekTreeList::RTLIterator() const {
    return m_entries->list();
}

int CVekTreeList::RTLLength() const {
    return static_cast<int>(m_entries->size());
}
