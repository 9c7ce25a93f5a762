#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace kvx {

/// Objects by number, from 1 on, in blocks that never move. A number is given to the block that has
/// had room most recently; a block without objects is freed, but for one that is kept for the next.
template <class Object>
class NumberedPool {
  public:
    using Number = std::uint32_t;  // 0: none

    NumberedPool() = default;
    NumberedPool(const NumberedPool&) = delete;
    NumberedPool& operator=(const NumberedPool&) = delete;
    ~NumberedPool() {
        for (Number number = next(1); number != 0; number = next(number + 1)) {
            if (holds(number)) (*this)[number].~Object();
        }
    }

    Object& operator[](Number number) { return *blocks_[number / kPerBlock]->at(number); }
    const Object& operator[](Number number) const {
        return *blocks_[number / kPerBlock]->at(number);
    }

    /// Whether `number` is that of an object, now.
    [[nodiscard]] bool holds(Number number) const {
        const std::size_t block = number / kPerBlock;
        return number != 0 && block < blocks_.size() && blocks_[block] != nullptr &&
               blocks_[block]->isTaken(number % kPerBlock);
    }

    /// The number of the first object from `number` on within its block, else the first number of
    /// the next block; 0 at the end. Not every result `holds`.
    [[nodiscard]] Number next(Number number) const {
        const std::size_t block = number / kPerBlock;
        if (block >= blocks_.size()) return 0;
        const unsigned place =
            blocks_[block] == nullptr ? kPerBlock : blocks_[block]->takenFrom(number % kPerBlock);
        if (place == kPerBlock && block + 1 == blocks_.size()) return 0;
        return static_cast<Number>(block * kPerBlock + place);
    }

    /// Makes room for `more` objects. Throws `std::bad_alloc`, with nothing changed.
    void makeRoom(std::size_t more) {
        while (free_ < more) addBlock();
    }

    /// The number of a new object; there must be room for it.
    Number take() noexcept {
        const std::size_t index = withRoom_;
        Block& block = *blocks_[index];
        const unsigned place = block.firstFree();
        if (block.used == 0) --empty_;
        block.setTaken(place, true);
        --free_;
        if (block.used == kPerBlock) unlink(index);
        const auto number = static_cast<Number>(index * kPerBlock + place);
        new (block.at(number)) Object();
        return number;
    }

    /// Destroys an object.
    void give(Number number) noexcept {
        const std::size_t index = number / kPerBlock;
        Block& block = *blocks_[index];
        block.at(number)->~Object();
        if (block.used == kPerBlock) link(index);
        block.setTaken(number % kPerBlock, false);
        ++free_;
        if (block.used == 0 && ++empty_ > 1) dropBlock(index);
    }

  private:
    static constexpr unsigned kPerBlock = 64;
    static constexpr std::size_t kNone = ~std::size_t{0};

    struct Block {
        std::array<std::uint64_t, kPerBlock / 64> taken{};
        unsigned used = 0;
        // The list of blocks with room.
        std::size_t previous = kNone;
        std::size_t following = kNone;
        alignas(alignof(Object)) std::byte storage[kPerBlock * sizeof(Object)];

        Object* at(Number number) {
            return reinterpret_cast<Object*>(storage) + number % kPerBlock;
        }
        [[nodiscard]] bool isTaken(unsigned place) const {
            return (taken[place / 64] >> place % 64 & 1U) != 0;
        }
        void setTaken(unsigned place, bool isTaken) {
            taken[place / 64] ^= std::uint64_t{1} << place % 64;
            used += isTaken ? 1U : ~0U;
        }
        [[nodiscard]] unsigned firstFree() const {
            unsigned word = 0;
            while (~taken[word] == 0) ++word;
            return word * 64 + static_cast<unsigned>(std::countr_one(taken[word]));
        }
        // The first taken place from `place` on, or `kPerBlock`.
        [[nodiscard]] unsigned takenFrom(unsigned place) const {
            for (unsigned word = place / 64; word < taken.size(); ++word, place = word * 64) {
                const std::uint64_t left = taken[word] >> place % 64;
                if (left != 0) return place + static_cast<unsigned>(std::countr_zero(left));
            }
            return kPerBlock;
        }
    };

    void addBlock() {
        auto made = std::make_unique_for_overwrite<Block>();
        auto place = blocks_.end();
        if (freed_ != 0) place = std::find(blocks_.begin(), blocks_.end(), nullptr);
        if (place == blocks_.end()) {
            place = blocks_.insert(place, nullptr);
        } else {
            --freed_;
        }
        const auto index = static_cast<std::size_t>(place - blocks_.begin());
        *place = std::move(made);
        link(index);
        free_ += kPerBlock;
        ++empty_;
        if (index != 0) return;
        // Number 0 is nobody's.
        new ((*place)->at(0)) Object();
        (*place)->setTaken(0, true);
        --free_;
        --empty_;
    }

    void dropBlock(std::size_t index) noexcept {
        unlink(index);
        blocks_[index].reset();
        free_ -= kPerBlock;
        --empty_;
        ++freed_;
        for (; blocks_.back() == nullptr; --freed_) blocks_.pop_back();
    }

    void link(std::size_t index) noexcept {
        blocks_[index]->previous = kNone;
        blocks_[index]->following = std::exchange(withRoom_, index);
        if (blocks_[index]->following != kNone)
            blocks_[blocks_[index]->following]->previous = index;
    }

    void unlink(std::size_t index) noexcept {
        const Block& block = *blocks_[index];
        (block.previous == kNone ? withRoom_ : blocks_[block.previous]->following) =
            block.following;
        if (block.following != kNone) blocks_[block.following]->previous = block.previous;
    }

    std::vector<std::unique_ptr<Block>> blocks_;  // null: freed
    std::size_t withRoom_ = kNone;                // the first of the list
    std::size_t free_ = 0;                        // places in all blocks
    std::size_t empty_ = 0;                       // blocks without objects
    std::size_t freed_ = 0;                       // null ones of `blocks_`
};

}  // namespace kvx
