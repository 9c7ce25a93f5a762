#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "rv/message/WireReader.h"

/// The bytes of a recording, as docs/recorder-format.md describes them: a head, and a ring of
/// records. Numbers are big-endian.
namespace kvx::recording {

/// At the start of the file.
inline constexpr std::string_view kMagic = "KVXREC01";
inline constexpr std::size_t kFileHeadBytes = 4'096;  ///< the ring follows
inline constexpr std::size_t kAtCapacity = 8;         ///< 8 bytes: of the ring
inline constexpr std::size_t kAtSeed = 16;            ///< 8 bytes: a random number, in all checks
inline constexpr std::size_t kAtCreated = 24;         ///< 8 bytes: nanoseconds since the epoch
inline constexpr std::size_t kAtProcess = 32;         ///< 8 bytes: the id of who records

inline constexpr std::uint64_t kLeastCapacity = 4'096;
inline constexpr std::uint64_t kMostCapacity = 1ULL << 32U;

/// At the start of a record, which begins at a multiple of 8 bytes. Subject, service, network and
/// message follow, each padded with zeros to a multiple of 8 bytes.
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
    return (length + 7) & ~std::uint64_t{7};
}

inline constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15ULL;

constexpr std::uint64_t mixed(std::uint64_t number) {
    number = (number ^ number >> 32U) * kMultiplier;
    return number ^ number >> 29U;
}

/// Of where a record is, and how long.
constexpr std::uint32_t headCheck(std::uint64_t seed, std::uint64_t position,
                                  std::uint32_t length) {
    return static_cast<std::uint32_t>(mixed(mixed(position ^ seed) + length) >> 32U);
}

/// Of the content of a record: 64 bits in four lanes, of which each part takes its first word into
/// the first lane, the next one into the second, and so on in turn.
class Check {
  public:
    Check(std::uint64_t seed, std::uint64_t position)
        : lanes_{seed, seed + position, seed ^ position, ~seed} {}

    /// Takes the three numbers that a record's head ends with.
    void take(std::uint64_t first, std::uint64_t second, std::uint64_t third) {
        lanes_[0] = (lanes_[0] ^ first) * kMultiplier;
        lanes_[1] = (lanes_[1] ^ second) * kMultiplier;
        lanes_[2] = (lanes_[2] ^ third) * kMultiplier;
    }
    /// Takes `count` bytes, the last word of them padded with zeros.
    void take(const std::uint8_t* bytes, std::size_t count) {
        each(bytes, count, [](std::size_t, std::uint64_t) {});
    }
    /// The same, and writes them to `to` with that padding.
    void copy(std::uint8_t* to, const void* bytes, std::size_t count) {
        each(static_cast<const std::uint8_t*>(bytes), count,
             [to](std::size_t at, std::uint64_t word) { storeBig64(to + at, word); });
    }
    [[nodiscard]] std::uint64_t value() const {
        return mixed(mixed(mixed(lanes_[0]) + lanes_[1]) + mixed(lanes_[2]) * 3 + lanes_[3]);
    }

  private:
    // The lanes by constant indices only, which lets them stay in registers.
    template <class Use>
    void each(const std::uint8_t* bytes, std::size_t count, Use&& use) {
        const auto step = [&](std::uint64_t& lane, std::size_t at, std::uint64_t word) {
            use(at, word);
            lane = (lane ^ word) * kMultiplier;
        };
        auto [a, b, c, d] = lanes_;
        std::size_t at = 0;
        for (; at + 32 <= count; at += 32) {
            step(a, at, loadBig64(bytes + at));
            step(b, at + 8, loadBig64(bytes + at + 8));
            step(c, at + 16, loadBig64(bytes + at + 16));
            step(d, at + 24, loadBig64(bytes + at + 24));
        }
        const std::size_t words = (count - at) / 8;
        if (words > 0) step(a, at, loadBig64(bytes + at));
        if (words > 1) step(b, at + 8, loadBig64(bytes + at + 8));
        if (words > 2) step(c, at + 16, loadBig64(bytes + at + 16));
        at += 8 * words;
        if (at != count) {
            const std::uint64_t last = lastWord(bytes + at, count - at);
            if (words == 0) step(a, at, last);
            if (words == 1) step(b, at, last);
            if (words == 2) step(c, at, last);
            if (words == 3) step(d, at, last);
        }
        lanes_ = {a, b, c, d};
    }

    // Of 1 to 7 bytes.
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
        return word;
    }

    std::array<std::uint64_t, 4> lanes_;
};

}  // namespace kvx::recording
