#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

/// Short texts as machine words. Names and elements are a few bytes long, where a C library call
/// costs more than the work.
namespace kvx {

inline std::uint64_t loadWord(const char* at) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

/// At most 16 characters as two words. For texts of the same length, the words are equal if and
/// only if the texts are. Unused bytes are zero.
inline std::pair<std::uint64_t, std::uint64_t> wordsOf(const char* text, std::size_t length) {
    if (length >= 8) return {loadWord(text), loadWord(text + length - 8)};
    if (length >= 4) {
        std::uint32_t first;
        std::uint32_t last;
        std::memcpy(&first, text, sizeof first);
        std::memcpy(&last, text + length - sizeof last, sizeof last);
        return {first, last};
    }
    if (length == 0) return {0, 0};
    const auto at = [text](std::size_t i) {
        return static_cast<std::uint64_t>(static_cast<unsigned char>(text[i]));
    };
    return {at(0) << 16U | at(length / 2) << 8U | at(length - 1), 0};
}

/// Whether two texts of `length` characters are equal.
inline bool sameText(const char* a, const char* b, std::size_t length) {
    if (length <= 16) return wordsOf(a, length) == wordsOf(b, length);
    const auto differ = [a, b](std::size_t at) {
        return ((loadWord(a + at) ^ loadWord(b + at)) |
                (loadWord(a + at + 8) ^ loadWord(b + at + 8))) != 0;
    };
    for (std::size_t at = 0; at + 16 < length; at += 16) {
        if (differ(at)) return false;
    }
    return !differ(length - 16);
}

/// Whether a text of `length` characters has `wanted` among them.
inline bool hasCharacter(const char* text, std::size_t length, char wanted) {
    if (length > 16) return std::memchr(text, wanted, length) != nullptr;
    if (length < 4) {
        return length != 0 &&
               (text[0] == wanted || text[length / 2] == wanted || text[length - 1] == wanted);
    }
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    const auto isIn = [wanted](std::uint64_t word) {
        word ^= kOnes * static_cast<unsigned char>(wanted);
        return ((word - kOnes) & ~word & 0x8080808080808080U) != 0;
    };
    const auto [first, last] = wordsOf(text, length);
    return length >= 8 ? isIn(first) || isIn(last) : isIn(first | last << 32U);
}

inline bool hasZero(const char* text, std::size_t length) {
    return hasCharacter(text, length, 0);
}

/// The length of a name and whether it has a full stop, in one pass.
struct NameShape {
    std::size_t characters = 0;
    bool hasFullStop = false;
};

inline NameShape shapeOf(const char* name) {
    NameShape shape;
    if (name == nullptr) return shape;
    for (; name[shape.characters] != 0; ++shape.characters) {
        if (name[shape.characters] == '.') shape.hasFullStop = true;
    }
    return shape;
}

/// Copies exactly `count` bytes; the ranges do not overlap.
inline void copyShort(void* to, const void* from, std::size_t count) {
    auto* const target = static_cast<char*>(to);
    const auto* const source = static_cast<const char*>(from);
    if (count > 16) {
        std::memcpy(target, source, count);
    } else if (count >= 8) {
        const std::uint64_t last = loadWord(source + count - 8);
        const std::uint64_t first = loadWord(source);
        std::memcpy(target, &first, sizeof first);
        std::memcpy(target + count - 8, &last, sizeof last);
    } else if (count >= 4) {
        std::uint32_t first;
        std::uint32_t last;
        std::memcpy(&first, source, sizeof first);
        std::memcpy(&last, source + count - 4, sizeof last);
        std::memcpy(target, &first, sizeof first);
        std::memcpy(target + count - 4, &last, sizeof last);
    } else if (count != 0) {
        target[0] = source[0];
        target[count / 2] = source[count / 2];
        target[count - 1] = source[count - 1];
    }
}

}  // namespace kvx
