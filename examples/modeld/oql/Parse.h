#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "examples/modeld/oql/Query.h"

namespace modeld::oql {

/// An error in a query text, and its character position (1-based).
struct SyntaxError {
    std::string message;
    Position position = 0;
};

/// The limits of a query: its length, the nesting of `not` and parentheses, and the number of
/// comparisons. They bound the work for any text; errors name them.
inline constexpr std::size_t kMaxQueryBytes = 64 * 1024;
inline constexpr int kMaxNesting = 64;
inline constexpr int kMaxComparisons = 500;

/// Reads one query. Keywords are recognised in any case, a closing semicolon is allowed. Texts are
/// in single or double quotes; names are in double quotes or, when they are words other than
/// keywords, unquoted; a doubled quote is a quote inside. Any thread.
std::variant<Query, SyntaxError> parse(std::string_view text);

}  // namespace modeld::oql
