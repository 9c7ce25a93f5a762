#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace modeld::oql {

/// A position in the query text: the 1-based number of its first character.
using Position = std::size_t;

/// A name as the user wrote it, and its position.
struct Name {
    std::string text;
    Position position = 0;
};

/// The form in which keywords and names are compared: ASCII letters in lower case.
std::string lowered(std::string_view text);

struct Null {};

/// A value to compare a field with.
using Literal = std::variant<Null, std::int64_t, double, std::string>;

enum class Comparison { Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual, Like };

struct Condition;
using ConditionPtr = std::unique_ptr<Condition>;

/// `field op literal`, and `field is null` as an equality with Null.
struct Compare {
    Name field;
    Comparison operation = Comparison::Equal;
    Literal value;
};

struct Not {
    ConditionPtr operand;
};

/// Flat: `a and b and c` is one node with three operands, so that the depth of a tree is that of
/// the parentheses, not the length of the text.
struct All {
    std::vector<ConditionPtr> operands;
};

struct Any {
    std::vector<ConditionPtr> operands;
};

/// A node of the `where` condition.
struct Condition {
    std::variant<Compare, Not, All, Any> node;
};

struct Order {
    Name field;
    bool descending = false;
};

/// `select fields from table [where condition] [order by ...] [limit n]`.
struct Query {
    std::vector<Name> fields;  ///< empty for `*`
    Name table;
    ConditionPtr where;  ///< null for every row
    std::vector<Order> order;
    std::optional<std::int64_t> limit;
};

}  // namespace modeld::oql
