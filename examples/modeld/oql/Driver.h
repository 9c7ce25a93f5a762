#pragma once

#include <optional>
#include <string>
#include <utility>

#include "OqlParser.h"
#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/oql/Scanner.h"

namespace modeld::oql::grammar {

/// The state of the generated parser: the input tokens, the resulting tree, the limits of a query,
/// and the first error.
class Driver {
  public:
    explicit Driver(std::string_view text) : scanner_(text) {}

    Parser::symbol_type nextSymbol();

    /// Joins two conditions into one flat node.
    template <class Joined>
    ConditionPtr join(ConditionPtr left, ConditionPtr right) {
        if (auto* joined = std::get_if<Joined>(&left->node)) {
            joined->operands.push_back(std::move(right));
            return left;
        }
        Joined both;
        both.operands.push_back(std::move(left));
        both.operands.push_back(std::move(right));
        return std::make_unique<Condition>(Condition{std::move(both)});
    }

    ConditionPtr negate(ConditionPtr operand);

    /// Null, with the error stored, when the query has too many comparisons already.
    ConditionPtr compare(Name field, Comparison operation, Literal value);

    /// Counts one level of nesting; false, with the error stored, above the limit.
    bool enter(Position position);
    void leave() { --nesting_; }

    /// Stores an error; only the first one is kept.
    void fail(std::string message, Position position);

    /// Describes the last token for an error: in quotes as the user wrote it, or "end of the
    /// query".
    std::string describeLast() const;

    const std::optional<SyntaxError>& error() const { return error_; }

    Query query;

  private:
    static Parser::symbol_type wordSymbol(Token token);
    static Parser::symbol_type operatorSymbol(const Token& token);

    Scanner scanner_;
    Token last_;
    int nesting_ = 0;
    int comparisons_ = 0;
    std::optional<SyntaxError> error_;
};

}  // namespace modeld::oql::grammar
