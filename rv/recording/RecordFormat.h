#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "rv/message/WireReader.h"

/// The bytes of a recording, as kvx-recording(5) describes them: a head, and a ring of runs, which
/// are messages of one origin behind a head that tells it. Numbers are big-endian.
namespace kvx::recording {

/// At the start of the file.
inline constexpr std::string_view kMagic = "KVXREC02";
inline constexpr std::size_t kFileHeadBytes = 4'096;  ///< the ring follows
inline constexpr std::size_t kAtCapacity = 8;         ///< 8 bytes: of the ring
inline constexpr std::size_t kAtSeed = 16;            ///< 8 bytes: a random number, in all checks
inline constexpr std::size_t kAtCreated = 24;         ///< 8 bytes: nanoseconds since the epoch
inline constexpr std::size_t kAtProcess = 32;         ///< 8 bytes: the id of who records

/// Heads, and what follows them, begin at multiples of it.
inline constexpr std::uint64_t kUnit = 16;

inline constexpr std::uint64_t kLeastCapacity = 4'096;
inline constexpr std::uint64_t kMostCapacity = 1ULL << 32U;

/// At the start of a run. The names of service and network follow, padded with zeros to a whole
/// unit.
inline constexpr std::size_t kAtPosition = 0;      ///< 8 bytes: since the ring was made
inline constexpr std::size_t kAtRunCheck = 8;      ///< 8 bytes: of position and all that follows
inline constexpr std::size_t kAtTime = 16;         ///< 8 bytes: nanoseconds since the epoch
inline constexpr std::size_t kAtSession = 24;      ///< 8 bytes: its number
inline constexpr std::size_t kAtServiceSize = 32;  ///< 1 byte
inline constexpr std::size_t kAtNetworkSize = 33;  ///< 1 byte
inline constexpr std::size_t kAtNames = 34;
inline constexpr std::size_t kMostNameBytes = 255;  ///< of a service or network: more are cut

/// At the start of a message. Its bytes follow, padded with zeros to a whole unit.
inline constexpr std::size_t kMessageHeadBytes = 16;
inline constexpr std::size_t kAtHeadCheck = 0;     ///< 4 bytes: of position, length and subject
inline constexpr std::size_t kAtContentCheck = 4;  ///< 4 bytes: of what follows the head
inline constexpr std::size_t kAtLength = 8;        ///< 4 bytes: of what follows, and `kIsPart`
inline constexpr std::size_t kAtSubject = 12;      ///< 4 bytes: where it is in what follows
inline constexpr std::uint32_t kIsPart = 1U << 31U;
/// At the start of what follows when `kIsPart`: the size of the whole message in 4 bytes, padded,
/// and its subject, padded.
inline constexpr std::size_t kPartHeadBytes = 16;

/// A length with its padding.
constexpr std::uint64_t padded(std::uint64_t length) {
    return (length + kUnit - 1) & ~(kUnit - 1);
}

inline constexpr std::uint64_t kMixing = 0x9E3779B97F4A7C15ULL;

constexpr std::uint64_t mixed(std::uint64_t number) {
    number = (number ^ number >> 32U) * kMixing;
    return number ^ number >> 29U;
}

/// The messages of a run begin in so many bytes from its start: where one is torn, the next can be
/// found, and a ring that turns cuts off no more than that.
constexpr std::uint64_t runBytes(std::uint64_t capacity) {
    return std::clamp<std::uint64_t>(capacity / 16, 1'024, 4'096);
}

constexpr std::uint64_t runHeadBytes(std::size_t serviceSize, std::size_t networkSize) {
    return padded(kAtNames + serviceSize + networkSize);
}

/// Of the head of a message: where it is, and what its two numbers say. `run`: the check of its
/// run, which its own are made with, so that it belongs to no other one.
constexpr std::uint32_t headCheck(std::uint64_t run, std::uint64_t position,
                                  std::uint64_t numbers) {
    return static_cast<std::uint32_t>(mixed((position ^ run) + numbers * kMixing) >> 32U);
}

/// Of the bytes at a position: two sums of its words, and the sums of these sums, which tell the
/// order. Both words of a unit are added at once, and a unit costs hardly more than to copy it.
class Check {
  public:
    Check(std::uint64_t seed, std::uint64_t position)
        : sum_{seed, seed + position}, sums_{seed ^ position, ~seed} {}

    /// Takes `count` bytes, the last unit of them padded with zeros.
    void take(const std::uint8_t* bytes, std::size_t count) {
        each(bytes, count, [](std::size_t, const Unit&) {});
    }
    /// The same, and writes them to `to` with that padding.
    void copy(std::uint8_t* to, const void* bytes, std::size_t count) {
        each(static_cast<const std::uint8_t*>(bytes), count,
             [to](std::size_t at, const Unit& unit) { std::memcpy(to + at, &unit, kUnit); });
    }
    [[nodiscard]] std::uint64_t value() const {
        return mixed(((sum_[0] * kMixing + sum_[1]) * kMixing + sums_[0]) * kMixing + sums_[1]);
    }
    /// What the head of a message has of it.
    [[nodiscard]] std::uint32_t shortValue() const {
        return static_cast<std::uint32_t>(value() >> 32U);
    }

  private:
    // Two words, as they are in memory.
    using Unit = std::uint64_t __attribute__((vector_size(kUnit)));

    template <class Use>
    void each(const std::uint8_t* bytes, std::size_t count, Use&& use) {
        Unit unit;
        std::size_t at = 0;
        for (; at + kUnit <= count; at += kUnit) {
            std::memcpy(&unit, bytes + at, kUnit);
            use(at, unit);
            add(unit);
        }
        if (at == count) return;
        unit = at == 0 ? firstBytes(bytes, count) : lastBytes(bytes + at, count - at);
        use(at, unit);
        add(unit);
    }
    void add(Unit unit) {
        if constexpr (std::endian::native == std::endian::big) {
            unit = Unit{littleEndian(unit[0]), littleEndian(unit[1])};
        }
        sum_ += unit;
        sums_ += sum_;
    }
    // 1 to 15 bytes behind a whole unit, which is read with them. What was written in pieces could
    // not be read as a whole at once.
    static Unit lastBytes(const std::uint8_t* bytes, std::size_t count) {
        std::array<std::uint64_t, 2> words{};
        std::memcpy(words.data(), bytes + count - kUnit, kUnit);
        const std::uint64_t first = littleEndian(words[0]);
        const std::uint64_t second = littleEndian(words[1]);
        const auto missing = static_cast<unsigned>(8 * (kUnit - count));
        if (missing >= 64) return Unit{littleEndian(second >> (missing - 64)), 0};
        return Unit{littleEndian(first >> missing | second << (64 - missing)),
                    littleEndian(second >> missing)};
    }
    // 1 to 15 bytes that are all there is.
    static Unit firstBytes(const std::uint8_t* bytes, std::size_t count) {
        Unit unit{};
        std::memcpy(&unit, bytes, count);
        return unit;
    }
    // A number for the word that is little-endian in memory, and back.
    static std::uint64_t littleEndian(std::uint64_t word) {
        return std::endian::native == std::endian::big ? __builtin_bswap64(word) : word;
    }

    Unit sum_;
    Unit sums_;
};

}  // namespace kvx::recording
