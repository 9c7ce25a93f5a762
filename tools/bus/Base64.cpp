#include "tools/bus/Base64.h"

#include <cstdint>

namespace kvx::bus {

namespace {

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string toBase64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::string_view group = bytes.substr(i, 3);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8U | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= group.size() ? kDigits[bits >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    std::string bytes;
    std::uint32_t bits = 0;
    unsigned count = 0;
    for (const char c : text.substr(0, text.size() - padding)) {
        const auto digit = kDigits.find(c);
        if (digit == std::string_view::npos) return std::nullopt;
        bits = bits << 6U | static_cast<std::uint32_t>(digit);
        count += 6;
        if (count < 8) continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 0xffU);
    }
    // What is left over of the last digit is zero.
    if ((bits & ((1U << count) - 1)) != 0) return std::nullopt;
    return bytes;
}

}  // namespace kvx::bus
