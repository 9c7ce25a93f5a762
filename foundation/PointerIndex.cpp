// All holders are in one list, in the order of adding; a hash table maps each key to its positions
// in that list. So iteration is in the order of adding, and a removal does not reorder the others.
// A slot of the table is never empty.
//
// One of many values of a key is found in an ordered set of (key, pointee or holder, number). Few
// lists need it, so it is built at the first such removal. When a pointee is changed through its
// holder, the holder sets `isPointeeChanged_`: the next removal drops the set and looks through the
// values, which costs less than building it, and the one after builds it again.

#include "foundation/PointerIndex.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>
#include <utility>

#include "foundation/CVekPointer.h"
#include "foundation/ErrorCodes.h"

namespace kvx {

namespace {

constexpr std::size_t kLookedThrough = 16;  // values of a key that need no set

}  // namespace

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
            Places places;
            places.emplace(added_, added.begin());
            StoredKey stored{key.isText, key.number, std::string(key.text)};
            slot = slots_.emplace(std::move(stored), std::move(places)).first;
        } else {
            slot->second.emplace(added_, added.begin());
        }
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    }
    // Splicing keeps the iterator that the slot has just remembered.
    order_.splice(order_.end(), added);
    order_.back().reset(holder);
    if (multiple_) holder->m_isChanged = &isPointeeChanged_;
    name(slot->second, added_++, *holder);
    return kOk;
}

CVekPointer* PointerIndex::first(KeyView key) const {
    const auto slot = slots_.find(key);
    return slot == slots_.end() ? nullptr : slot->second.begin()->second->get();
}

std::size_t PointerIndex::count(KeyView key) const {
    const auto slot = slots_.find(key);
    return slot == slots_.end() ? 0 : slot->second.size();
}

int PointerIndex::removeAll(KeyView key) {
    const auto slot = slots_.find(key);
    if (slot == slots_.end()) return kNotFound;
    Places& places = slot->second;
    if (isPointeeChanged_) forgetNames();
    if (isNamed_) {
        const auto first = named_.lower_bound({&places, nullptr, 0});
        const auto isOther = [&places](const Named& name) { return std::get<0>(name) != &places; };
        named_.erase(first, std::find_if(first, named_.end(), isOther));
    }
    for (const auto& [number, place] : places) order_.erase(place);
    slots_.erase(slot);
    return kOk;
}

int PointerIndex::removeOne(KeyView key, const void* value) {
    const auto slot = slots_.find(key);
    if (slot == slots_.end()) return kNotFound;
    Places& places = slot->second;
    const auto found = placeOf(places, value);
    if (found == places.end()) return kNotFound;
    const auto [number, place] = *found;
    if (isNamed_) {
        named_.erase({&places, (*place)->RPData(), number});
        named_.erase({&places, place->get(), number});
    }
    order_.erase(place);
    places.erase(found);
    if (places.empty()) slots_.erase(slot);
    return kOk;
}

PointerIndex::Places::iterator PointerIndex::placeOf(Places& places, const void* value) {
    const bool isOutdated = isPointeeChanged_;
    if (isOutdated) forgetNames();
    if (isOutdated || places.size() <= kLookedThrough || !nameAll()) {
        return std::find_if(places.begin(), places.end(), [value](const auto& place) {
            return place.second->get() == value || (*place.second)->RPData() == value;
        });
    }
    const auto named = named_.lower_bound({&places, value, 0});
    const bool isFound =
        named != named_.end() && std::get<0>(*named) == &places && std::get<1>(*named) == value;
    return isFound ? places.find(std::get<2>(*named)) : places.end();
}

bool PointerIndex::nameAll() {
    if (isNamed_) return true;
    isNamed_ = true;
    for (const auto& [key, places] : slots_) {
        for (const auto& [number, place] : places) {
            name(places, number, **place);
            if (!isNamed_) return false;
        }
    }
    return true;
}

void PointerIndex::name(const Places& places, std::uint64_t number, const CVekPointer& holder) {
    if (!isNamed_) return;
    try {
        named_.emplace(&places, holder.RPData(), number);
        named_.emplace(&places, &holder, number);
    } catch (const std::bad_alloc&) {
        forgetNames();
    }
}

void PointerIndex::forgetNames() {
    named_.clear();
    isNamed_ = false;
    isPointeeChanged_ = false;
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
    for (const auto& [number, place] : slot->second) {
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

CVekPointer::~CVekPointer() = default;

CVekListable* CVekPointer::RLTargetDeepCopy(const CVekListable* source) {
    const auto* original = dynamic_cast<const CVekPointer*>(source);
    return original == nullptr ? nullptr : new CVekPointer(original->RPData());
}
