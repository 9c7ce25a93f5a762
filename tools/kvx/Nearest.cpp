#include "tools/kvx/Nearest.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <utility>

#include "platform/Text.h"

namespace kvx::tool {

namespace {

constexpr std::size_t kLongestWord = 60;  // bytes shown of an invalid word

// The edit distance: characters to add, remove or replace.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string quoted(const std::string& word) {
    return "'" + shortened(word, kLongestWord) + "'";
}

std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
    const std::string start = word.substr(0, kLongestWord);
    const auto nearest =
        std::min_element(known.begin(), known.end(), [&](const auto& left, const auto& right) {
            return distance(start, left) < distance(start, right);
        });
    return nearest == known.end() ? "" : fmt::format("; did you mean '{}'?", *nearest);
}

}  // namespace kvx::tool
