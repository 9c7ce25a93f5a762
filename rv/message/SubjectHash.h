#pragma once

#include <cstddef>
#include <cstdint>

#include "rv/message/ShortText.h"

namespace kvx {

/// Hashes under a seed of their own, so that a peer cannot choose colliding subjects. They are
/// hints only: equal hashes only cost time.
class SubjectHash {
  public:
    explicit SubjectHash(std::uint64_t seed) : seed_(seed) {}

    [[nodiscard]] std::uint64_t ofBytes(const void* bytes, std::size_t size) const {
        const char* at = static_cast<const char*>(bytes);
        std::uint64_t hash = seed_ ^ size * kMix;
        // Two products at a time: neither waits for the other.
        for (; size > 32; size -= 32, at += 32) {
            hash = foldedProduct(loadWord(at) ^ hash, loadWord(at + 8) ^ seed_) ^
                   foldedProduct(loadWord(at + 16) ^ hash, loadWord(at + 24) ^ seed_ ^ kMix);
        }
        if (size > 16) {
            hash = foldedProduct(loadWord(at) ^ hash, loadWord(at + 8) ^ seed_);
            size -= 16;
            at += 16;
        }
        const auto [a, b] = wordsOf(at, size);
        return foldedProduct(a ^ hash, b ^ seed_ ^ kMix);
    }
    [[nodiscard]] std::uint64_t ofNumber(std::uint64_t number) const {
        return foldedProduct(number ^ seed_, seed_ ^ kMix);
    }
    /// A hash of what `hash` is one of and of `number`.
    static std::uint64_t combined(std::uint64_t hash, std::uint32_t number) {
        return hash ^ number * kMix;
    }

    /// What a slot stores.
    static std::uint32_t forSlot(std::uint64_t hash) {
        return static_cast<std::uint32_t>(hash >> 32U);
    }

  private:
    static constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15U;

    // The two halves of the 128-bit product, folded: every input bit reaches every output bit.
    static std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
    }

    std::uint64_t seed_;
};

}  // namespace kvx
