#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace kvx {

/// Numbers by hash: open addressing with linear probing, at most half full. The table stores hashes
/// only; the caller's predicate selects among numbers of an equal hash.
class SlotTable {
  public:
    SlotTable() : slots_(kFirstSlots) {}

    /// The number under `hash` for which `isMeant(number)` is true; 0 when there is none.
    template <class IsMeant>
    std::uint32_t find(std::uint32_t hash, IsMeant isMeant) const {
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = hash & mask; slots_[i].number != 0; i = (i + 1) & mask) {
            if (slots_[i].hash == hash && isMeant(slots_[i].number)) return slots_[i].number;
        }
        return 0;
    }

    /// Prefetches the first slot that `find` reads.
    void prefetch(std::uint32_t hash) const {
        __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
    }

    /// Makes room for `more` inserts. Throws `std::bad_alloc`, with nothing changed.
    void makeRoom(std::size_t more) {
        while ((used_ + more) * 2 > slots_.size()) grow();
    }

    /// `number` must not be 0, and there must be room for it.
    void insert(std::uint32_t hash, std::uint32_t number) noexcept {
        place({hash, number});
        ++used_;
    }

    /// `number` must be under `hash`. Later slots of the same run move back, so that no probe ends
    /// too early.
    void erase(std::uint32_t hash, std::uint32_t number) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t gap = hash & mask;
        while (slots_[gap].number != number) gap = (gap + 1) & mask;
        for (std::size_t i = (gap + 1) & mask; slots_[i].number != 0; i = (i + 1) & mask) {
            const std::size_t home = slots_[i].hash & mask;
            if (((i - home) & mask) < ((i - gap) & mask)) continue;
            slots_[gap] = slots_[i];
            gap = i;
        }
        slots_[gap] = {0, 0};
        --used_;
    }

  private:
    struct Slot {
        std::uint32_t hash = 0;
        std::uint32_t number = 0;  // 0: free
    };
    static constexpr std::size_t kFirstSlots = 64;  // a power of two, as every later size

    void place(Slot slot) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t i = slot.hash & mask;
        while (slots_[i].number != 0) i = (i + 1) & mask;
        slots_[i] = slot;
    }

    void grow() {
        const std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(slots_.size() * 2));
        for (const Slot slot : old) {
            if (slot.number != 0) place(slot);
        }
    }

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
};

}  // namespace kvx
