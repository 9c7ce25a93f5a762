#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>

#include "foundation/CVekDoubleList.h"
#include "foundation/CVekPointer.h"

namespace kvx {

/// Shared by the hash list and the tree list: holders by key, in the order of adding. Owns the
/// holders. Finding takes constant time at any size; adding and removing take at most logarithmic
/// time in the values of the key, except the first removal of one of many values after a pointee
/// was changed with `RPSetData`, which is linear.
class PointerIndex {
  public:
    /// A number or a text; the text must outlive the call.
    struct KeyView {
        bool isText;
        unsigned long number;
        std::string_view text;
    };
    static KeyView keyOf(unsigned long number) { return {false, number, {}}; }
    static KeyView keyOf(std::string_view text) { return {true, 0, text}; }

    PointerIndex(bool multiple, std::size_t expected);
    PointerIndex(const PointerIndex&) = delete;
    PointerIndex& operator=(const PointerIndex&) = delete;

    /// Takes ownership of `holder` and returns 1, or returns an error code and does not take it.
    int add(KeyView key, CVekPointer* holder);

    /// The first holder under `key`, or null.
    CVekPointer* first(KeyView key) const;
    std::size_t count(KeyView key) const;

    /// Deletes all holders under `key`, or the first one that is `value` or points to it. Returns
    /// 1, or -220547 when there is none.
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
    // The holders of one key by the number of their adding.
    using Places = std::map<std::uint64_t, Order::iterator>;
    using Slots = std::unordered_map<StoredKey, Places, Hash, Equal>;
    // A position by the pointee or the holder, by either of which a caller may name it.
    using Named = std::tuple<const Places*, const void*, std::uint64_t>;

    // The first position in `places` whose holder is `value` or points to it.
    Places::iterator placeOf(Places& places, const void* value);
    // Makes `named_` complete; false without memory.
    bool nameAll();
    void name(const Places& places, std::uint64_t number, const CVekPointer& holder);
    void forgetNames();

    bool multiple_;
    std::uint64_t added_ = 0;
    Order order_;
    Slots slots_;
    // Built when one of many values is first removed; complete while `isNamed_`.
    std::set<Named> named_;
    bool isNamed_ = false;
    bool isPointeeChanged_ = false;
};

}  // namespace kvx
