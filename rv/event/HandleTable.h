#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>

#include "rv/event/IdTable.h"

namespace kvx::event {

/// Handles of things that are opened and closed on any thread. A handle is a token, never a pointer
/// and never reused, so a handle of a closed thing stays invalid. A look-up takes no lock and reads
/// only the table; it is safe in a signal handler.
///
/// For static storage: constant-initialised (`constinit`), and not destroyed at exit, since objects
/// in static storage may be closed later. Its memory grows with the number of open handles and is
/// never freed.
template <class Thing>
class HandleTable {
  public:
    constexpr HandleTable() = default;
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    /// Any thread. Null for a handle that is null, closed or of another table.
    [[nodiscard]] Thing* find(const void* handle) const noexcept {
        const auto id = std::bit_cast<std::uint64_t>(handle);
        const Slot* slot = slotAt(id & kIndexMask);
        if (id == 0 || slot == nullptr || slot->id.load(std::memory_order_acquire) != id)
            return nullptr;
        return slot->thing.load(std::memory_order_relaxed);
    }

    /// Returns a new handle of `thing`. Any thread; throws `std::bad_alloc` without memory or above
    /// 4,194,240 things.
    [[nodiscard]] void* add(Thing* thing) {
        const std::lock_guard guard(lock_);
        if (firstFree_ == kNone) grow();
        const std::size_t index = firstFree_;
        Slot& slot = *slotAt(index);
        firstFree_ = slot.nextFree;
        const std::uint64_t id = nextIdSerial() << kIndexBits | index;
        slot.thing.store(thing, std::memory_order_relaxed);
        slot.id.store(id, std::memory_order_release);
        return std::bit_cast<void*>(id);
    }

    /// Invalidates a handle; ignored for an invalid one. Any thread.
    void remove(const void* handle) noexcept {
        const std::lock_guard guard(lock_);
        if (find(handle) == nullptr) return;
        const std::size_t index = std::bit_cast<std::uint64_t>(handle) & kIndexMask;
        Slot& slot = *slotAt(index);
        slot.id.store(0, std::memory_order_release);
        slot.nextFree = firstFree_;
        firstFree_ = index;
    }

  private:
    static constexpr unsigned kIndexBits = 24;
    static constexpr std::size_t kIndexMask = (std::size_t{1} << kIndexBits) - 1;
    static constexpr std::size_t kNone = kIndexMask;
    // Block n has 64 << n slots and begins with slot (64 << n) - 64.
    static constexpr std::size_t kFirstBlock = 64;
    static constexpr std::size_t kBlocks = 16;

    struct Slot {
        std::atomic<std::uint64_t> id = 0;  // 0 while the slot is free
        std::atomic<Thing*> thing = nullptr;
        std::size_t nextFree = kNone;  // guarded by lock_
    };

    [[nodiscard]] Slot* slotAt(std::size_t index) const noexcept {
        const std::size_t place = index + kFirstBlock;
        const auto block =
            static_cast<std::size_t>(std::bit_width(place) - std::bit_width(kFirstBlock));
        if (block >= kBlocks) return nullptr;
        Slot* const slots = blocks_[block].load(std::memory_order_acquire);
        return slots == nullptr ? nullptr : slots + (place - (kFirstBlock << block));
    }

    void grow() {
        if (used_ == kBlocks) throw std::bad_alloc();
        const std::size_t count = kFirstBlock << used_;
        const std::size_t first = count - kFirstBlock;
        auto* const slots = new Slot[count];
        for (std::size_t i = 0; i + 1 < count; ++i) slots[i].nextFree = first + i + 1;
        firstFree_ = first;
        blocks_[used_++].store(slots, std::memory_order_release);
    }

    std::mutex lock_;
    std::array<std::atomic<Slot*>, kBlocks> blocks_{};
    std::size_t used_ = 0;           // guarded by lock_, as the next
    std::size_t firstFree_ = kNone;  // slots that grow() has not made yet are used last
};

/// A thing's handle, valid until the thing is destroyed or `retire` is called.
template <class Thing>
class Handle {
  public:
    Handle(HandleTable<Thing>& table, Thing* thing) : table_(table), name_(table.add(thing)) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { retire(); }

    /// The handle, also after `retire`.
    [[nodiscard]] void* get() const noexcept { return name_; }
    void retire() noexcept { table_.remove(name_); }

  private:
    HandleTable<Thing>& table_;
    void* const name_;
};

}  // namespace kvx::event
