#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace modeld::oql {

/// The bytes of the well-formed UTF-8 character that `text` begins with; 0 where there is none, as
/// at a stray byte, a character cut short, a surrogate or an overlong form.
std::size_t characterLength(std::string_view text);

/// Whether `text` begins with a control character: below 0x20, 0x7f, or U+0080 to U+009F.
bool startsWithControl(std::string_view text);

/// `text`, or when it has more than `most` bytes its beginning and how long it is: user's bytes
/// that an error or a log line repeats. Well-formed characters stay whole.
std::string excerpt(std::string_view text, std::size_t most = 40);

}  // namespace modeld::oql
