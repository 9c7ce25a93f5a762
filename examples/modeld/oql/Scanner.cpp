// Cuts query texts into tokens. ASCII classes are tested by hand, independent of the locale; any
// other UTF-8 character counts as a letter.

#include "examples/modeld/oql/Scanner.h"

#include <charconv>
#include <utility>

#include "platform/Text.h"

namespace modeld::oql {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isWordStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool isWordPart(char c) {
    return isWordStart(c) || isDigit(c) || c == '.';
}

std::string describe(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x21 && byte < 0x7f) return std::string("unexpected character '") + c + "'";
    static constexpr char kDigits[] = "0123456789abcdef";
    return std::string("unexpected byte 0x") + kDigits[byte >> 4U] + kDigits[byte & 0xfU];
}

}  // namespace

char Scanner::at(std::size_t offset) const {
    return here_ + offset < text_.size() ? text_[here_ + offset] : '\0';
}

// The length of the next letter, underline or non-ASCII character; 0 for anything else.
std::size_t Scanner::letterLength() const {
    if (isWordStart(at(0))) return 1;
    const std::string_view rest = text_.substr(here_);
    const std::size_t length = kvx::characterLength(rest);
    return length > 1 && !kvx::startsWithControl(rest) ? length : 0;
}

void Scanner::skipBlanks() {
    while (here_ < text_.size() &&
           std::string_view(" \t\r\n").find(text_[here_]) != std::string_view::npos) {
        ++here_;
    }
}

Token Scanner::token(TokenKind kind, std::string text) const {
    Token result;
    result.kind = kind;
    result.text = std::move(text);
    result.position = start_ + 1;
    return result;
}

Token Scanner::next() {
    skipBlanks();
    start_ = here_;
    if (here_ >= text_.size()) return token(TokenKind::End, "");
    const char first = text_[here_];
    if (letterLength() != 0) return scanWord();
    if (isDigit(first) || (first == '-' && isDigit(at(1)))) return scanNumber();
    if (first == '\'' || first == '"') return scanText(first);
    return scanSymbol();
}

Token Scanner::scanWord() {
    while (true) {
        const std::size_t length = isWordPart(at(0)) ? 1 : letterLength();
        if (length == 0) break;
        here_ += length;
    }
    return token(TokenKind::Word, std::string(text_.substr(start_, here_ - start_)));
}

Token Scanner::scanNumber() {
    if (at(0) == '-') ++here_;
    while (isDigit(at(0))) ++here_;
    bool real = false;
    if (at(0) == '.' && isDigit(at(1))) {
        real = true;
        ++here_;
        while (isDigit(at(0))) ++here_;
    }
    if (letterLength() != 0) return token(TokenKind::Bad, "a number runs into a name");
    Token result = token(real ? TokenKind::Real : TokenKind::Integer,
                         std::string(text_.substr(start_, here_ - start_)));
    const char* begin = result.text.data();
    const char* end = begin + result.text.size();
    const auto outcome = real ? std::from_chars(begin, end, result.real)
                              : std::from_chars(begin, end, result.integer);
    if (outcome.ec != std::errc()) return token(TokenKind::Bad, "this number is too large");
    return result;
}

Token Scanner::scanText(char quote) {
    std::string content;
    for (++here_; here_ < text_.size(); ++here_) {
        if (text_[here_] != quote) {
            content.push_back(text_[here_]);
        } else if (at(1) == quote) {
            content.push_back(quote);
            ++here_;
        } else {
            ++here_;
            return token(quote == '"' ? TokenKind::Quoted : TokenKind::Text, std::move(content));
        }
    }
    return token(TokenKind::Bad, "this text has no closing quote");
}

Token Scanner::scanSymbol() {
    static constexpr std::string_view kDouble[] = {"!=", "<>", "<=", ">="};
    static constexpr std::string_view kSingle = "=<>*,();";
    for (const auto symbol : kDouble) {
        if (text_.substr(here_, 2) == symbol) {
            here_ += 2;
            return token(TokenKind::Symbol, std::string(symbol));
        }
    }
    const char c = text_[here_++];
    if (kSingle.find(c) != std::string_view::npos)
        return token(TokenKind::Symbol, std::string(1, c));
    return token(TokenKind::Bad, describe(c));
}

}  // namespace modeld::oql
