#include "tools/bus/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace kvx::bus {

namespace {

unsigned byteAt(const std::string& text, std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

bool isContinuation(unsigned byte) {
    return (byte & 0xc0U) == 0x80U;
}

// The bytes of the UTF-8 character at `i`; 1 for a byte that begins none.
std::size_t characterLength(const std::string& text, std::size_t i) {
    const unsigned lead = byteAt(text, i);
    const std::size_t length = lead < 0xc2 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    for (std::size_t k = 1; k < length; ++k) {
        if (lead > 0xf4 || !isContinuation(byteAt(text, i + k))) return 1;
    }
    return length;
}

bool isControl(const std::string& text, std::size_t i, std::size_t length) {
    const unsigned first = byteAt(text, i);
    if (length == 1) return first < 0x20 || (first >= 0x7f && first < 0xa0);
    return length == 2 && first == 0xc2 && byteAt(text, i + 1) < 0xa0;
}

}  // namespace

std::string printable(std::string text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = characterLength(text, i);
        if (isControl(text, i, length))
            std::fill_n(text.begin() + static_cast<long>(i), length, ' ');
        i += length;
    }
    return text;
}

std::string printableJson(const std::string& json) {
    std::string escaped;
    for (std::size_t i = 0; i < json.size();) {
        const std::size_t length = characterLength(json, i);
        if (isControl(json, i, length)) {
            fmt::format_to(std::back_inserter(escaped), "\\u{:04x}", byteAt(json, i + length - 1));
        } else {
            escaped.append(json, i, length);
        }
        i += length;
    }
    return escaped;
}

std::size_t characterBegin(const std::string& text, std::size_t i) {
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

}  // namespace kvx::bus
