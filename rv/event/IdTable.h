#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <new>
#include <optional>
#include <utility>

namespace kvx::event {

/// Ascending numbers from 1, unique in this process. Any thread.
[[nodiscard]] inline std::uint64_t nextIdSerial() noexcept {
    static std::atomic<std::uint64_t> serial = 0;
    return serial.fetch_add(1, std::memory_order_relaxed) + 1;
}

/// Owns things that are known by id, and finds whether any id, however old or foreign, names one of
/// them. Ids are tokens: a look-up reads only the table.
///
/// An id is a serial number (unique in the process) above the index of a slot; the slot stores the
/// id of its current thing. Addresses of the things stay valid until they are removed. Slots are
/// reused, so that a table in steady state allocates nothing. One thread at a time.
template <class Thing>
class IdTable {
  public:
    using Id = void*;

    /// Takes `thing` and returns its id; null without memory or above 16,777,215 things.
    [[nodiscard]] Id add(Thing thing) noexcept {
        try {
            if (free_ == kNoSlot) {
                if (slots_.size() >= kNoSlot) return nullptr;
                slots_.emplace_back();
                free_ = slots_.size() - 1;
            }
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        const std::size_t index = free_;
        Slot& slot = slots_[index];
        free_ = slot.nextFree;
        slot.id = nextIdSerial() << kIndexBits | index;
        slot.thing.emplace(std::move(thing));
        ++size_;
        return std::bit_cast<Id>(slot.id);
    }

    /// The thing of this id; null for a dead, foreign or null id.
    [[nodiscard]] Thing* find(Id id) noexcept {
        Slot* slot = slotOf(id);
        return slot == nullptr ? nullptr : &*slot->thing;
    }
    [[nodiscard]] const Thing* find(Id id) const noexcept {
        return const_cast<IdTable*>(this)->find(id);
    }

    /// Destroys the thing of this id. Its id is dead before its destructor runs. False when there
    /// is none.
    bool remove(Id id) noexcept {
        Slot* slot = slotOf(id);
        if (slot == nullptr) return false;
        const std::size_t index = slot->id & kIndexMask;
        slot->id = 0;
        --size_;
        slot->thing.reset();
        slot->nextFree = free_;
        free_ = index;
        return true;
    }

    [[nodiscard]] std::size_t size() const noexcept { return size_; }

    /// Calls `visit(id, thing)` for each, in no defined order. `visit` must not add.
    template <class Visit>
    void forEach(Visit&& visit) {
        for (Slot& slot : slots_) {
            if (slot.id != 0) visit(std::bit_cast<Id>(slot.id), *slot.thing);
        }
    }

  private:
    static_assert(sizeof(Id) == sizeof(std::uint64_t), "ids need 64 bits");
    static constexpr unsigned kIndexBits = 24;
    static constexpr std::size_t kIndexMask = (std::size_t{1} << kIndexBits) - 1;
    static constexpr std::size_t kNoSlot = kIndexMask;

    struct Slot {
        std::uint64_t id = 0;  // 0 while the slot is free
        std::size_t nextFree = kNoSlot;
        std::optional<Thing> thing;
    };

    Slot* slotOf(Id id) noexcept {
        const auto number = std::bit_cast<std::uint64_t>(id);
        const std::size_t index = number & kIndexMask;
        if (number == 0 || index >= slots_.size() || slots_[index].id != number) return nullptr;
        return &slots_[index];
    }

    std::deque<Slot> slots_;
    std::size_t free_ = kNoSlot;
    std::size_t size_ = 0;
};

}  // namespace kvx::event
