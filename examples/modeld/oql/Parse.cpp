// From a query text to its tree.
//
// The scanner cuts the text into tokens, the driver names them (keywords in any case, symbols), and
// the generated parser builds the nodes through the driver. A grammar cannot count, so the driver
// enforces the limits on length, nesting and comparisons. It keeps the first error, its own or the
// parser's, with its position.

#include "examples/modeld/oql/Parse.h"

#include <array>
#include <string>
#include <utility>

#include "examples/modeld/oql/Driver.h"
#include "platform/Text.h"

namespace modeld::oql {

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
}

namespace grammar {

namespace {

using Symbol = Parser::symbol_type;

struct Keyword {
    std::string_view word;
    Parser::token_type token;
};

constexpr std::array<Keyword, 14> kKeywords = {{
    {"select", Parser::token::TOK_SELECT},
    {"from", Parser::token::TOK_FROM},
    {"where", Parser::token::TOK_WHERE},
    {"order", Parser::token::TOK_ORDER},
    {"by", Parser::token::TOK_BY},
    {"asc", Parser::token::TOK_ASC},
    {"desc", Parser::token::TOK_DESC},
    {"limit", Parser::token::TOK_LIMIT},
    {"and", Parser::token::TOK_AND},
    {"or", Parser::token::TOK_OR},
    {"not", Parser::token::TOK_NOT},
    {"like", Parser::token::TOK_LIKE},
    {"is", Parser::token::TOK_IS},
    {"null", Parser::token::TOK_NULL_},
}};

constexpr std::array<Keyword, 12> kSymbols = {{
    {"<>", Parser::token::TOK_NOT_EQUAL},
    {"*", Parser::token::TOK_STAR},
    {",", Parser::token::TOK_COMMA},
    {"(", Parser::token::TOK_OPEN},
    {")", Parser::token::TOK_CLOSE},
    {";", Parser::token::TOK_SEMICOLON},
    {"=", Parser::token::TOK_EQUAL},
    {"!=", Parser::token::TOK_NOT_EQUAL},
    {"<", Parser::token::TOK_LESS},
    {"<=", Parser::token::TOK_LESS_OR_EQUAL},
    {">", Parser::token::TOK_GREATER},
    {">=", Parser::token::TOK_GREATER_OR_EQUAL},
}};

}  // namespace

Symbol Driver::nextSymbol() {
    Token token = scanner_.next();
    last_ = token;
    const Span span{token.position};
    switch (token.kind) {
        case TokenKind::End:
            return Parser::make_END(span);
        case TokenKind::Word:
            return wordSymbol(std::move(token));
        case TokenKind::Text:
            return Parser::make_TEXT(std::move(token.text), span);
        case TokenKind::Quoted:
            return Parser::make_QUOTED(std::move(token.text), span);
        case TokenKind::Integer:
            return Parser::make_INTEGER(token.integer, span);
        case TokenKind::Real:
            return Parser::make_REAL(token.real, span);
        case TokenKind::Symbol:
            return operatorSymbol(token);
        case TokenKind::Bad:
            break;
    }
    fail(token.text, token.position);
    return Parser::make_BAD(span);
}

Symbol Driver::wordSymbol(Token token) {
    const Span span{token.position};
    const std::string word = lowered(token.text);
    for (const auto& keyword : kKeywords) {
        if (keyword.word == word) return {keyword.token, span};
    }
    return Parser::make_NAME(std::move(token.text), span);
}

Symbol Driver::operatorSymbol(const Token& token) {
    const Span span{token.position};
    for (const auto& symbol : kSymbols) {
        if (symbol.word == token.text) return {symbol.token, span};
    }
    return Parser::make_BAD(span);
}

std::string Driver::describeLast() const {
    if (last_.kind == TokenKind::End) return "end of the query";
    return "'" + kvx::excerpt(last_.text) + "'";
}

ConditionPtr Driver::negate(ConditionPtr operand) {
    return std::make_unique<Condition>(Condition{Not{std::move(operand)}});
}

ConditionPtr Driver::compare(Name field, Comparison operation, Literal value) {
    if (++comparisons_ > kMaxComparisons) {
        fail("more than " + std::to_string(kMaxComparisons) + " comparisons", field.position);
        return nullptr;
    }
    return std::make_unique<Condition>(
        Condition{Compare{std::move(field), operation, std::move(value)}});
}

bool Driver::enter(Position position) {
    if (++nesting_ <= kMaxNesting) return true;
    fail("nested more than " + std::to_string(kMaxNesting) + " deep", position);
    return false;
}

void Driver::fail(std::string message, Position position) {
    if (!error_) error_ = SyntaxError{std::move(message), position};
}

}  // namespace grammar

std::variant<Query, SyntaxError> parse(std::string_view text) {
    if (text.size() > kMaxQueryBytes) {
        return SyntaxError{"longer than " + std::to_string(kMaxQueryBytes) + " bytes",
                           kMaxQueryBytes + 1};
    }
    grammar::Driver driver(text);
    grammar::Parser parser(driver);
    if (parser.parse() == 0 && !driver.error()) return std::move(driver.query);
    return driver.error().value_or(SyntaxError{"cannot be read", 1});
}

}  // namespace modeld::oql
