#include "examples/modeld/oql/Text.h"

namespace modeld::oql {

namespace {

unsigned byteAt(std::string_view text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

// What the second byte may be: some first bytes would begin overlong forms, surrogates, or
// characters beyond U+10FFFF.
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
        if ((byteAt(text, i) & 0xc0U) != 0x80U) return 0;
    }
    return length;
}

bool startsWithControl(std::string_view text) {
    const unsigned first = byteAt(text, 0);
    if (text.empty()) return false;
    return first < 0x20 || first == 0x7f || (first == 0xc2 && (byteAt(text, 1) & 0xe0U) == 0x80U);
}

std::string excerpt(std::string_view text, std::size_t most) {
    if (text.size() <= most) return std::string(text);
    std::size_t end = 0;
    while (end < most) {
        const std::size_t length = characterLength(text.substr(end));
        if (end + length > most) break;
        end += length == 0 ? 1 : length;
    }
    return std::string(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace modeld::oql
