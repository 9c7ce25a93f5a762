#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kvx::bus {

/// Base64 of RFC 4648, with padding.
[[nodiscard]] std::string toBase64(std::string_view bytes);
/// Nothing when the text is no such base64.
[[nodiscard]] std::optional<std::string> fromBase64(std::string_view text);

}  // namespace kvx::bus
