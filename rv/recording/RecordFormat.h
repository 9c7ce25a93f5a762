#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "rv/message/WireReader.h"

/// The bytes of a recording, as kvx-recording(5) describes them: a head, and a ring of
/// records. Numbers are big-endian.
namespace kvx::recording {

/// At the start of the file.
inline constexpr std::string_view kMagic = "KVXREC01";
inline constexpr std::size_t kFileHeadBytes = 4'096;  ///< the ring follows
inline constexpr std::size_t kAtCapacity = 8;         ///< 8 bytes: of the ring
inline constexpr std::size_t kAtSeed = 16;            ///< 8 bytes: a random number, in all checks
inline constexpr std::size_t kAtCreated = 24;         ///< 8 bytes: nanoseconds since the epoch
inline constexpr std::size_t kAtProcess = 32;         ///< 8 bytes: the id of who records

/// Records and their parts begin at multiples of it.
inline constexpr std::uint64_t kUnit = 16;

inline constexpr std::uint64_t kLeastCapacity = 4'096;
inline constexpr std::uint64_t kMostCapacity = 1ULL << 32U;

/// At the start of a record. Subject, service, network and message follow, each padded with zeros
/// to a whole unit.
inline constexpr std::size_t kRecordHeadBytes = 48;
inline constexpr std::size_t kAtPosition = 0;  ///< 8 bytes: since the ring was made
inline constexpr std::size_t kAtLength = 8;    ///< 4 bytes: of the record, without the last padding
inline constexpr std::size_t kAtHeadCheck = 12;    ///< 4 bytes
inline constexpr std::size_t kAtCheck = 16;        ///< 8 bytes: of all that follows, in these parts
inline constexpr std::size_t kAtTime = 24;         ///< 8 bytes: nanoseconds since the epoch
inline constexpr std::size_t kAtSession = 32;      ///< 8 bytes: its number
inline constexpr std::size_t kAtMessageSize = 40;  ///< 4 bytes: of the whole message
inline constexpr std::size_t kAtSubjectSize = 44;  ///< 2 bytes
inline constexpr std::size_t kAtServiceSize = 46;  ///< 1 byte
inline constexpr std::size_t kAtNetworkSize = 47;  ///< 1 byte
inline constexpr std::size_t kMostNameBytes = 255;  ///< of a service or network: more are cut

/// A length with its padding.
constexpr std::uint64_t padded(std::uint64_t length) {
    return (length + kUnit - 1) & ~(kUnit - 1);
}

constexpr std::uint64_t mixed(std::uint64_t number) {
    number = (number ^ number >> 32U) * 0x9E3779B97F4A7C15ULL;
    return number ^ number >> 29U;
}

/// Of where a record is, and how long.
constexpr std::uint32_t headCheck(std::uint64_t seed, std::uint64_t position,
                                  std::uint32_t length) {
    return static_cast<std::uint32_t>(mixed(mixed(position ^ seed) + length) >> 32U);
}

/// Of the content of a record: two sums of its words, and the sums of these sums, which tell the
/// order. Both words of a unit are added at once, and a unit costs hardly more than to copy it.
class Check {
  public:
    Check(std::uint64_t seed, std::uint64_t position)
        : sum_{seed, seed + position}, sums_{seed ^ position, ~seed} {}

    /// Takes the three numbers that a record's head ends with.
    void take(std::uint64_t first, std::uint64_t second, std::uint64_t third) {
        add(Unit{inMemory(first), inMemory(second)});
        add(Unit{inMemory(third), 0});
    }
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
        return mixed(mixed(mixed(sum_[0]) + sum_[1]) + mixed(sums_[0]) * 3 + sums_[1]);
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
        unit = lastUnit(bytes + at, count - at);
        use(at, unit);
        add(unit);
    }
    void add(Unit unit) {
        if constexpr (std::endian::native == std::endian::big) {
            unit = Unit{__builtin_bswap64(unit[0]), __builtin_bswap64(unit[1])};
        }
        sum_ += unit;
        sums_ += sum_;
    }
    // Of 1 to 15 bytes. Put together in registers: what was written in pieces cannot be read as a
    // whole at once.
    static Unit lastUnit(const std::uint8_t* bytes, std::size_t count) {
        if (count < sizeof(std::uint64_t)) return Unit{lastWord(bytes, count), 0};
        std::uint64_t first = 0;
        std::memcpy(&first, bytes, sizeof first);
        return Unit{first, lastWord(bytes + sizeof first, count - sizeof first)};
    }
    // Of 0 to 7 bytes, as a word in memory that goes on with zeros.
    static std::uint64_t lastWord(const std::uint8_t* at, std::size_t count) {
        std::uint64_t word = 0;
        unsigned shift = 64;
        const auto add = [&](std::size_t bytes, std::uint64_t part) {
            shift -= static_cast<unsigned>(8 * bytes);
            word |= part << shift;
            at += bytes;
        };
        if ((count & 4U) != 0) add(4, loadBig32(at));
        if ((count & 2U) != 0) add(2, loadBig16(at));
        if ((count & 1U) != 0) add(1, *at);
        return inMemory(word);
    }
    // A number as the word that is big-endian in memory.
    static std::uint64_t inMemory(std::uint64_t number) {
        return std::endian::native == std::endian::big ? number : __builtin_bswap64(number);
    }

    Unit sum_;
    Unit sums_;
};

}  // namespace kvx::recording
