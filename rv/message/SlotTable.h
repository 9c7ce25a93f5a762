#pragma once

#include <algorithm>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace kvx {

/// A hash and the number of what it belongs to. The hash is a hint: the caller's predicate selects
/// among slots of an equal hash.
struct HashSlot {
    std::uint32_t hash = 0;
    std::uint32_t number = 0;  // 0: free
};

/// Slots by hash: open addressing with linear probing. At most half of the slots are in use and, in
/// a table of more than a few, at least three of sixteen. A large table is in parts, by the upper
/// bits of the hash, that grow and shrink on their own: no change moves more than some ten thousand
/// slots in a table of a million. `HashOf` gives the hash of a slot; a slot whose `number` is 0 is
/// free.
template <class Slot, class HashOf>
class BasicSlotTable {
  public:
    explicit BasicSlotTable(HashOf hashOf = {}) : hashOf_(hashOf), parts_(1) {
        parts_[0] = Part(kFewSlots);
    }

    /// The slot under `hash` for which `isMeant(slot)` is true, or null. Valid until the next
    /// change of the table.
    template <class IsMeant>
    Slot* find(std::uint32_t hash, IsMeant isMeant) const {
        const Part& part = parts_[partOf(hash)];
        for (std::size_t i = hash & part.mask; part.slots[i].number != 0; i = (i + 1) & part.mask) {
            if (hashOf_(part.slots[i]) == hash && isMeant(part.slots[i])) return &part.slots[i];
        }
        return nullptr;
    }

    /// Some slot in use; null when none is. Amortised constant time.
    Slot* any() {
        for (; first_.part < parts_.size(); first_ = {first_.part + 1, 0}) {
            Part& part = parts_[first_.part];
            for (; part.used != 0 && first_.slot <= part.mask; ++first_.slot) {
                if (part.slots[first_.slot].number != 0) return &part.slots[first_.slot];
            }
        }
        return nullptr;
    }

    /// Calls `visit(const Slot&)` for each slot in use.
    template <class Visit>
    void each(Visit visit) const {
        for (const Part& part : parts_) {
            for (std::size_t i = 0; i <= part.mask; ++i) {
                if (part.slots[i].number != 0) visit(std::as_const(part.slots[i]));
            }
        }
    }

    /// Prefetches the first slot that `find` reads.
    void prefetch(std::uint32_t hash) const {
        const Part& part = parts_[partOf(hash)];
        __builtin_prefetch(&part.slots[hash & part.mask]);
    }

    /// Makes room for two inserts. Throws `std::bad_alloc`, with nothing changed.
    void makeRoom() {
        if (tight_ != 0 && parts_.size() == 1 && parts_[0].mask + 1 == kMostInOne) divide(kParts);
        for (std::size_t i = 0; tight_ != 0; ++i) {
            if (parts_[i].isTight()) resize(i, (parts_[i].mask + 1) * 2);
        }
    }

    /// `slot` must not be free, and there must be room for it.
    void insert(Slot slot) noexcept {
        const std::size_t index = partOf(hashOf_(slot));
        Part& part = parts_[index];
        tight_ -= part.isTight() ? 1U : 0U;
        const Place place{index, put(part, slot)};
        first_ = std::min(first_, place);
        ++part.used;
        ++used_;
        tight_ += part.isTight() ? 1U : 0U;
    }

    /// `slot` is one that `find` or `any` has returned. Later slots of the same run move back, so
    /// that no probe ends too early. Needs no memory: without it, the table keeps its size.
    void erase(Slot* slot) noexcept {
        const std::size_t index = partOf(hashOf_(*slot));
        Part& part = parts_[index];
        tight_ -= part.isTight() ? 1U : 0U;
        auto gap = static_cast<std::size_t>(slot - part.slots.get());
        const std::size_t mask = part.mask;
        for (std::size_t i = (gap + 1) & mask; part.slots[i].number != 0; i = (i + 1) & mask) {
            const std::size_t home = hashOf_(part.slots[i]) & mask;
            if (((i - home) & mask) < ((i - gap) & mask)) continue;
            part.slots[gap] = part.slots[i];
            gap = i;
        }
        part.slots[gap] = Slot{};
        --part.used;
        --used_;
        tight_ += part.isTight() ? 1U : 0U;
        shrink(index);
    }

    [[nodiscard]] std::size_t size() const { return used_; }

  private:
    // Powers of two.
    static constexpr std::size_t kFewSlots = 8;        // at least, in a part
    static constexpr std::size_t kMostInOne = 32'768;  // slots in a table of one part
    static constexpr std::size_t kParts = 64;

    struct Part {
        Part() = default;
        explicit Part(std::size_t capacity)
            : slots(std::make_unique<Slot[]>(capacity)), mask(capacity - 1) {}
        [[nodiscard]] bool isTight() const { return (used + 2) * 2 > mask + 1; }

        std::unique_ptr<Slot[]> slots;
        std::size_t mask = 0;
        std::size_t used = 0;
    };
    struct Place {
        std::size_t part = 0;
        std::size_t slot = 0;
        friend bool operator<(const Place& a, const Place& b) {
            return a.part != b.part ? a.part < b.part : a.slot < b.slot;
        }
    };

    [[nodiscard]] std::size_t partOf(std::uint32_t hash) const {
        return parts_.size() == 1 ? 0 : hash / (std::uint32_t{1} << 26U);
    }

    std::size_t put(Part& part, Slot slot) noexcept {
        std::size_t i = hashOf_(slot) & part.mask;
        while (part.slots[i].number != 0) i = (i + 1) & part.mask;
        part.slots[i] = slot;
        return i;
    }

    void refill(const Part& old) noexcept {
        for (std::size_t i = 0; i <= old.mask; ++i) {
            if (old.slots[i].number == 0) continue;
            Part& part = parts_[partOf(hashOf_(old.slots[i]))];
            put(part, old.slots[i]);
            ++part.used;
        }
        first_ = {};
        tight_ = static_cast<std::size_t>(std::ranges::count_if(parts_, &Part::isTight));
    }

    void resize(std::size_t index, std::size_t capacity) {
        refill(std::exchange(parts_[index], Part(capacity)));
    }

    // Into `count` parts, a quarter in use.
    void divide(std::size_t count) {
        const std::size_t capacity = std::bit_ceil(used_ * 2 / count + 1) * 2;
        std::vector<Part> parts(count);
        for (Part& part : parts) part = Part(std::max(capacity, kFewSlots));
        parts_.swap(parts);
        for (const Part& old : parts) refill(old);
    }

    void shrink(std::size_t index) noexcept {
        const std::size_t capacity = parts_[index].mask + 1;
        try {
            if (parts_.size() > 1 && used_ < kMostInOne / 16) {
                divide(1);
            } else if (capacity > kFewSlots && parts_[index].used * 16 < capacity * 3) {
                resize(index, capacity / 2);
            }
        } catch (const std::bad_alloc&) {
            // It stays as large as it is.
            return;
        }
    }

    HashOf hashOf_;
    std::vector<Part> parts_;  // one or `kParts`
    std::size_t used_ = 0;
    std::size_t tight_ = 0;  // parts without room for two more
    Place first_;            // no slot before it is in use
};

struct StoredHash {
    std::uint32_t operator()(const HashSlot& slot) const { return slot.hash; }
};

/// Numbers by hash.
using SlotTable = BasicSlotTable<HashSlot, StoredHash>;

}  // namespace kvx
