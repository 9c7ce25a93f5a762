#include "tools/bus/QueryColumns.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kvx::bus {

namespace {

// A bounded cursor over a query's text.
class Words {
  public:
    explicit Words(std::string_view text) : rest_(text) {}

    // Takes a bare or a quoted word; nothing when there is neither.
    std::optional<std::string> word() {
        skipBlanks();
        if (rest_.empty()) return std::nullopt;
        const auto open = std::string_view("\"`[").find(rest_.front());
        if (open != std::string_view::npos) return quotedWord("\"`]"[open]);
        const auto end = std::find_if_not(rest_.begin(), rest_.end(), isWordPart);
        const auto length = static_cast<std::size_t>(end - rest_.begin());
        return length == 0 ? std::nullopt : std::optional(take(length));
    }

    bool keyword(std::string_view wanted) {
        skipBlanks();
        const Words before = *this;
        const bool isBare = !rest_.empty() && isWordPart(rest_.front());
        if (isBare && equalIgnoringCase(word().value_or(""), wanted)) return true;
        *this = before;
        return false;
    }

    bool comma() {
        skipBlanks();
        if (!rest_.starts_with(',')) return false;
        rest_.remove_prefix(1);
        return true;
    }

  private:
    static bool isWordPart(char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
               (c >= 'A' && c <= 'Z') || c == '_' || c == '.';
    }

    void skipBlanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }

    std::string take(std::size_t length) {
        std::string taken(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return taken;
    }

    // A doubled closing quote is one quote.
    std::optional<std::string> quotedWord(char close) {
        std::string word;
        rest_.remove_prefix(1);
        for (;;) {
            const auto end = rest_.find(close);
            if (end == std::string_view::npos) return std::nullopt;
            word += take(end);
            rest_.remove_prefix(1);
            if (!rest_.starts_with(close)) return word;
            word += take(1);
        }
    }

    std::string_view rest_;
};

}  // namespace

std::vector<std::string> selectedColumns(std::string_view query) {
    Words words(query);
    std::vector<std::string> columns;
    if (!words.keyword("select")) return {};
    do {
        auto column = words.word();
        if (!column) return {};
        columns.push_back(std::move(*column));
    } while (words.comma());
    return words.keyword("from") ? columns : std::vector<std::string>();
}

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted.push_back('"');
        quoted.push_back(c);
    }
    return quoted + '"';
}

bool equalIgnoringCase(std::string_view one, std::string_view other) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace kvx::bus
