#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "examples/modeld/oql/Query.h"

namespace modeld::oql {

/// What is wrong with a query text, and at which character (1-based).
struct SyntaxError {
    std::string message;
    Position position = 0;
};

/// The longest query text, the deepest nesting of `not` and parentheses, and the most comparisons
/// that one query may hold. They keep the work for any text small and are told to the user.
inline constexpr std::size_t kMaxQueryBytes = 64 * 1024;
inline constexpr int kMaxNesting = 64;
inline constexpr int kMaxComparisons = 500;

/// Reads one query. Keywords are recognised in any case, a closing semicolon is allowed. Texts
/// stand in single or double quotes, names in double quotes or, when they are words and no
/// keywords, in none; a doubled quote stands for a quote inside. Any thread.
std::variant<Query, SyntaxError> parse(std::string_view text);

}  // namespace modeld::oql
