// UTF-8 is read by its well-formed sequences: the first byte gives the length, and some first bytes
// narrow the range of the second one, which rules out overlong forms, surrogates and characters
// beyond U+10FFFF. Escaping and shortening step over a text by these sequences; a byte outside any
// is stepped over alone.

#include "platform/Text.h"

namespace kvx {

namespace {

unsigned byteAt(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

bool isContinuation(unsigned byte) {
    return (byte & 0xc0U) == 0x80U;
}

bool isSecond(unsigned first, unsigned second) {
    const unsigned least = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned most = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    return second >= least && second <= most;
}

}  // namespace

std::size_t characterLength(std::string_view text) {
    if (text.empty()) return 0;
    const unsigned first = byteAt(text, 0);
    if (first < 0x80) return 1;
    if (first < 0xc2 || first > 0xf4 || !isSecond(first, byteAt(text, 1))) return 0;
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    for (std::size_t i = 2; i < length; ++i) {
        if (!isContinuation(byteAt(text, i))) return 0;
    }
    return length;
}

bool startsWithControl(std::string_view text) {
    const unsigned first = byteAt(text, 0);
    if (text.empty()) return false;
    return first < 0x20 || first == 0x7f || (first == 0xc2 && (byteAt(text, 1) & 0xe0U) == 0x80U);
}

void appendHexEscape(std::string& line, std::string_view piece) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const char c : piece) {
        const auto byte = static_cast<unsigned char>(c);
        line.append("\\x").append({kDigits[byte >> 4U], kDigits[byte & 0xfU]});
    }
}

std::string printable(std::string_view text) {
    return escaped(text, [](std::string& shown, std::string_view piece) {
        const bool isControl = startsWithControl(piece) || byteAt(piece, 0) < 0xa0;
        shown += isControl ? std::string(piece.size(), ' ') : std::string(piece);
    });
}

std::size_t characterBegin(std::string_view text, std::size_t i) {
    while (i > 0 && isContinuation(byteAt(text, i))) --i;
    return i;
}

std::string shortened(const std::string& text, std::size_t most) {
    if (text.size() <= most) return text;
    const std::size_t head = characterBegin(text, (most - 3) * 2 / 3);
    std::size_t tail = text.size() - (most - 3 - head);
    while (isContinuation(byteAt(text, tail))) ++tail;
    return text.substr(0, head) + "..." + text.substr(tail);
}

std::string excerpt(std::string_view text, std::size_t most) {
    if (text.size() <= most) return std::string(text);
    std::size_t end = 0;
    while (end < most) {
        const std::size_t length = std::max<std::size_t>(characterLength(text.substr(end)), 1);
        if (end + length > most) break;
        end += length;
    }
    return std::string(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace kvx
