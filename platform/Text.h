#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace kvx {

/// The length in bytes of the well-formed UTF-8 character that `text` begins with; 0 for a stray
/// byte, a truncated character, a surrogate or an overlong form.
KVX_API std::size_t characterLength(std::string_view text);

/// Whether `text` begins with a control character: below 0x20, 0x7f, or U+0080 to U+009F.
KVX_API bool startsWithControl(std::string_view text);

/// `text` made safe to show: each control character, and each byte that belongs to no character, is
/// passed to `escape(shown, piece)`, which appends a replacement to `shown` (a `std::string&`).
template <class Escape>
std::string escaped(std::string_view text, Escape&& escape) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        const std::string_view piece = text.substr(0, std::max<std::size_t>(length, 1));
        if (length != 0 && !startsWithControl(piece)) {
            shown += piece;
        } else {
            escape(shown, piece);
        }
        text.remove_prefix(piece.size());
    }
    return shown;
}

/// Appends the bytes of `piece` in hexadecimal, as in "\x1b".
KVX_API void appendHexEscape(std::string& line, std::string_view piece);

/// `text` on one line, escaped in hexadecimal.
inline std::string oneLine(std::string_view text) {
    return escaped(text, appendHexEscape);
}

/// `text` with control characters replaced by spaces, and likewise single bytes from 0x80 to 0x9f,
/// which a terminal may take for control characters.
KVX_API std::string printable(std::string_view text);

/// The offset of the UTF-8 character that contains the byte at `i`, or of the end.
KVX_API std::size_t characterBegin(std::string_view text, std::size_t i);

/// `text`, or its beginning and its end with "..." between them when it has more than `most` bytes
/// (at least 8). Characters stay whole.
KVX_API std::string shortened(const std::string& text, std::size_t most);

/// `text`, or its beginning and its length when it has more than `most` bytes. Characters stay
/// whole.
KVX_API std::string excerpt(std::string_view text, std::size_t most = 40);

}  // namespace kvx
