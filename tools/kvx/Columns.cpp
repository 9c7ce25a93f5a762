#include "tools/kvx/Columns.h"

#include <algorithm>

namespace kvx::tool {

bool equalIgnoringCase(std::string_view one, std::string_view other) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

std::size_t displayWidth(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80U;
    }));
}

void appendPadded(std::string& line, const std::string& text, std::size_t width) {
    line += text;
    const std::size_t taken = displayWidth(text);
    if (taken < width) line.append(width - taken, ' ');
}

std::vector<std::string> alignedLines(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    }
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string& line = lines.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (i != 0) line += "  ";
            appendPadded(line, row[i], i + 1 == row.size() ? 0 : widths[i]);
        }
    }
    return lines;
}

}  // namespace kvx::tool
