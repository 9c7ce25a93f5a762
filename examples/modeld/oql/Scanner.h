#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "examples/modeld/oql/Parse.h"

namespace modeld::oql {

/// Quoted is in double quotes: a name or a text, decided by the grammar.
enum class TokenKind { End, Word, Text, Quoted, Integer, Real, Symbol, Bad };

/// One token: a word in its own spelling, a text or quoted name without its quotes, a number, or an
/// operator.
struct Token {
    TokenKind kind = TokenKind::End;
    std::string text;  ///< for Bad: the error
    std::int64_t integer = 0;
    double real = 0;
    Position position = 0;
};

/// Cuts a query text into tokens. Never reads past the text and never fails: invalid input is a
/// token of kind Bad. The text must outlive the scanner.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    Token next();

  private:
    Token scanWord();
    Token scanNumber();
    Token scanText(char quote);
    Token scanSymbol();
    Token token(TokenKind kind, std::string text) const;
    void skipBlanks();
    std::size_t letterLength() const;
    char at(std::size_t offset) const;

    std::string_view text_;
    std::size_t here_ = 0;
    std::size_t start_ = 0;
};

}  // namespace modeld::oql
