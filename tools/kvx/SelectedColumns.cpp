#include "tools/kvx/SelectedColumns.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "tools/kvx/Columns.h"

namespace kvx::tool {

namespace {

// A cursor over a query's text that cannot step past its end.
class Words {
  public:
    explicit Words(std::string_view text) : rest_(text) {}

    // Takes a bare word, or the word in quotes; nothing where neither stands.
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

    // A doubled closing quote stands for one.
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

}  // namespace kvx::tool
