// The holders stand in one list in the order of their adding; beside it a hash table gives the
// places of each key in that list. So an iteration is in the order of adding, and a removal leaves
// the order of the others alone, whatever the hash of a key is. A slot is never empty.

#include "foundation/PointerIndex.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>

#include "foundation/ErrorCodes.h"

namespace kvx {

PointerIndex::PointerIndex(bool multiple, std::size_t expected) : multiple_(multiple) {
    slots_.reserve(expected);
}

int PointerIndex::add(KeyView key, CVekPointer* holder) {
    if (holder == nullptr) return kInvalidArgument;
    auto slot = slots_.find(key);
    if (slot != slots_.end() && !multiple_) return kKeyPresent;
    Order added;
    try {
        added.emplace_back();
        if (slot == slots_.end()) {
            slots_.emplace(StoredKey{key.isText, key.number, std::string(key.text)},
                           Places{added.begin()});
        } else {
            slot->second.push_back(added.begin());
        }
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    }
    // Splicing keeps the iterator that the slot has just remembered.
    order_.splice(order_.end(), added);
    order_.back().reset(holder);
    return kOk;
}

CVekPointer* PointerIndex::first(KeyView key) const {
    const auto slot = slots_.find(key);
    return slot == slots_.end() ? nullptr : slot->second.front()->get();
}

std::size_t PointerIndex::count(KeyView key) const {
    const auto slot = slots_.find(key);
    return slot == slots_.end() ? 0 : slot->second.size();
}

int PointerIndex::removeAll(KeyView key) {
    const auto slot = slots_.find(key);
    if (slot == slots_.end()) return kNotFound;
    for (const auto& place : slot->second) order_.erase(place);
    slots_.erase(slot);
    return kOk;
}

int PointerIndex::removeOne(KeyView key, const void* value) {
    const auto slot = slots_.find(key);
    if (slot == slots_.end()) return kNotFound;
    Places& places = slot->second;
    const auto found = std::find_if(places.begin(), places.end(), [value](const auto& place) {
        return place->get() == value || (*place)->RPData() == value;
    });
    if (found == places.end()) return kNotFound;
    order_.erase(*found);
    places.erase(found);
    if (places.empty()) slots_.erase(slot);
    return kOk;
}

CVekDoubleList* PointerIndex::list() const {
    auto copies = std::make_unique<CVekDoubleList>();
    for (const auto& holder : order_) copies->RDLAddToListEnd(new CVekPointer(holder->RPData()));
    return copies.release();
}

CVekDoubleList* PointerIndex::list(KeyView key) const {
    auto copies = std::make_unique<CVekDoubleList>();
    const auto slot = slots_.find(key);
    if (slot == slots_.end()) return copies.release();
    for (const auto& place : slot->second) {
        copies->RDLAddToListEnd(new CVekPointer((*place)->RPData()));
    }
    return copies.release();
}

std::size_t PointerIndex::Hash::operator()(const KeyView& key) const {
    return key.isText ? std::hash<std::string_view>()(key.text)
                      : std::hash<unsigned long>()(key.number);
}

bool PointerIndex::Equal::operator()(const KeyView& a, const KeyView& b) const {
    return a.isText == b.isText && a.number == b.number && a.text == b.text;
}

}  // namespace kvx
