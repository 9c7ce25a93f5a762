#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/CVekDoubleList.h"
#include "foundation/CVekPointer.h"

namespace kvx {

/// What the hash list and the tree list share: holders by key, and the order in which they came.
/// Owns the holders. Adding, finding and removing take constant time at any size.
class PointerIndex {
  public:
    /// A key as callers have it: a number or a text, which must outlive the call.
    struct KeyView {
        bool isText;
        unsigned long number;
        std::string_view text;
    };
    static KeyView keyOf(unsigned long number) { return {false, number, {}}; }
    static KeyView keyOf(std::string_view text) { return {true, 0, text}; }

    PointerIndex(bool multiple, std::size_t expected);

    /// Takes ownership of `holder` and returns 1, or gives the code of what is wrong and takes
    /// nothing.
    int add(KeyView key, CVekPointer* holder);

    /// The first holder under `key`, or null.
    CVekPointer* first(KeyView key) const;
    std::size_t count(KeyView key) const;

    /// Deletes the holders under `key`, or the first of them that is `value` or points to it. 1, or
    /// -220547 when there is none.
    int removeAll(KeyView key);
    int removeOne(KeyView key, const void* value);

    /// A new list of new holders of the same pointees, in the order of adding.
    CVekDoubleList* list() const;
    CVekDoubleList* list(KeyView key) const;

    std::size_t size() const { return order_.size(); }

  private:
    struct StoredKey {
        bool isText;
        unsigned long number;
        std::string text;
        operator KeyView() const { return {isText, number, text}; }
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const KeyView& key) const;
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const KeyView& a, const KeyView& b) const;
    };
    using Order = std::list<std::unique_ptr<CVekPointer>>;
    using Places = std::vector<Order::iterator>;
    using Slots = std::unordered_map<StoredKey, Places, Hash, Equal>;

    bool multiple_;
    Order order_;
    Slots slots_;
};

}  // namespace kvx
