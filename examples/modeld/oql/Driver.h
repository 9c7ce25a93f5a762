#pragma once

#include <optional>
#include <string>
#include <utility>

#include "OqlParser.h"
#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/oql/Scanner.h"

namespace modeld::oql::grammar {

/// What the generated parser works on: the tokens that go in, the tree that comes out, the limits
/// that a query has to keep, and the first thing that was wrong with it.
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

    /// Null, with the error noted, when the query holds too many comparisons already.
    ConditionPtr compare(Name field, Comparison operation, Literal value);

    /// Counts one level of nesting; false, with the error noted, when it is one too many.
    bool enter(Position position);
    void leave() { --nesting_; }

    /// Notes what is wrong. The first error is the one to tell.
    void fail(std::string message, Position position);

    /// The last token in words, for an error: in quotes as the user wrote it, or "end of the
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
