#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kvx::tool {

/// Whether two names differ at most in the case of their ASCII letters.
bool equalIgnoringCase(std::string_view one, std::string_view other);

/// Characters that a terminal shows, taking UTF-8 continuation bytes as part of the one before.
std::size_t displayWidth(const std::string& text);

/// Appends `text` and as many spaces as make it `width` characters wide.
void appendPadded(std::string& line, const std::string& text, std::size_t width);

/// Rows of cells as lines whose columns are aligned, two spaces between them.
std::vector<std::string> alignedLines(const std::vector<std::vector<std::string>>& rows);

}  // namespace kvx::tool
