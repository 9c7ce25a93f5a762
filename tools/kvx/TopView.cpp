// A table of columns, each with the key that sorts by it. Columns stand in the order of their
// importance: those that do not fit into the width are left out, and the first one, the name, gets
// what is left.

#include "tools/kvx/TopView.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "platform/Text.h"

namespace kvx::tool {

struct TopView::Column {
    const char* heading;
    char key;
    std::size_t width;  // of the name: at least
    std::function<std::string(const Json&)> text;
    std::function<double(const Json&)> size;  // what is sorted by, the largest first; null: by text
};

namespace {

constexpr std::size_t kGap = 2;  // characters between columns
constexpr std::size_t kPage = 10;

std::function<double(const Json&)> numberOf(const char* field) {
    return [field](const Json& row) { return realIn(row, field); };
}

std::function<std::string(const Json&)> countOf(const char* field) {
    return [field](const Json& row) { return countText(numberIn(row, field)); };
}

std::function<std::string(const Json&)> bytesOf(const char* field) {
    return [field](const Json& row) { return bytesText(realIn(row, field)); };
}

// Of printable text, which is cut, in characters of UTF-8.
std::string fitted(const std::string& text, std::size_t width, bool isRight) {
    std::string shown;
    std::size_t characters = 0;
    for (const char character : text) {
        const bool isFirst = (character & '\xc0') != '\x80';
        if (isFirst && characters == width) break;
        characters += isFirst ? 1 : 0;
        shown += character;
    }
    const std::string fill(width - characters, ' ');
    return isRight ? fill + shown : shown + fill;
}

std::string cut(const std::string& text, std::size_t width) {
    std::string shown = fitted(printable(text), width, false);
    shown.erase(shown.find_last_not_of(' ') + 1);
    return shown;
}

}  // namespace

const std::vector<TopView::Column>& TopView::sessionColumns() {
    static const std::vector<Column> kColumns = {
        {"SESSION", 'n', 20, [](const Json& row) { return whoIs(row); }, nullptr},
        {"NUMBER", '#', 6, [](const Json& row) { return std::to_string(numberIn(row, "number")); },
         numberOf("number")},
        {"QUEUE", 'w', 9, bytesOf("waiting_bytes"), numberOf("waiting_bytes")},
        {"DROPPED", 'd', 11, countOf("dropped"), numberOf("dropped")},
        {"IN/S", 'i', 9, countOf("published_rate"), numberOf("published_rate")},
        {"OUT/S", 'o', 9, countOf("delivered_rate"), numberOf("delivered_rate")},
        {"LISTENS", 'l', 7, countOf("listens"), numberOf("listens")},
        {"MEMORY", 'm', 9, bytesOf("memory"), numberOf("memory")},
        {"AGE", 'a', 11, [](const Json& row) { return spanText(numberIn(row, "age_ms")); },
         numberOf("age_ms")},
        {"SPACE", 'p', 12, [](const Json& row) { return spaceText(row); }, nullptr},
        {"ADDRESS", 'A', 21, [](const Json& row) { return textIn(row, "address"); }, nullptr},
    };
    return kColumns;
}

const std::vector<TopView::Column>& TopView::subjectColumns() {
    static const std::vector<Column> kColumns = {
        {"SUBJECT", 'n', 20, [](const Json& row) { return textIn(row, "subject"); }, nullptr},
        {"BYTES/S", 'b', 9, bytesOf("byte_rate"), numberOf("byte_rate")},
        {"MESSAGES/S", 'o', 10, [](const Json& row) { return rateText(realIn(row, "rate")); },
         numberOf("rate")},
        {"MESSAGES", 'm', 11, countOf("messages"), numberOf("messages")},
        {"SENDERS", 's', 7, countOf("senders"), numberOf("senders")},
        {"LISTENERS", 'l', 9, countOf("listeners"), numberOf("listeners")},
        {"SPACE", 'p', 12, [](const Json& row) { return spaceText(row); }, nullptr},
    };
    return kColumns;
}

bool TopView::press(int key) {
    if (isTyping_) {
        pressInFilter(key);
        return false;
    }
    switch (key) {
        case 'q':
            return true;
        case 't':
        case '\t':
            showsSubjects_ = !showsSubjects_;
            scroll_ = 0;
            break;
        case 'r':
            isReversed_ = !isReversed_;
            break;
        case '/':
            isTyping_ = true;
            break;
        case Escape:
            filter_.clear();
            break;
        case Up:
            scroll_ -= std::min<std::size_t>(scroll_, 1);
            break;
        case Down:
            ++scroll_;
            break;
        case PageUp:
            scroll_ -= std::min(scroll_, kPage);
            break;
        case PageDown:
            scroll_ += kPage;
            break;
        default:
            sortBy(key);
    }
    return false;
}

void TopView::pressInFilter(int key) {
    if (key == Enter || key == Escape) {
        isTyping_ = false;
        if (key == Escape) filter_.clear();
    } else if (key == Backspace) {
        if (!filter_.empty()) filter_.pop_back();
    } else if (key >= ' ' && key < 127) {
        filter_ += static_cast<char>(key);
    }
    scroll_ = 0;
}

void TopView::sortBy(int key) {
    const auto& all = columns();
    const auto found =
        std::ranges::find_if(all, [key](const Column& column) { return column.key == key; });
    if (found == all.end()) return;
    (showsSubjects_ ? subjectSort_ : sessionSort_) = static_cast<std::size_t>(found - all.begin());
    isReversed_ = false;
    scroll_ = 0;
}

// Those that the filter fits, in order.
std::vector<Json> TopView::rowsOf(const Answers& answers) const {
    const Json& all =
        showsSubjects_ ? rowsIn(answers.subjects, "subject") : rowsIn(answers.sessions, "session");
    std::vector<Json> rows;
    for (const auto& row : all) {
        const bool fits = filter_.empty() || std::ranges::any_of(columns(), [&](const Column& one) {
                              return one.text(row).find(filter_) != std::string::npos;
                          });
        if (fits) rows.push_back(row);
    }
    const Column& column = columns()[showsSubjects_ ? subjectSort_ : sessionSort_];
    std::ranges::stable_sort(rows, [&](const Json& one, const Json& other) {
        const Json& first = isReversed_ ? other : one;
        const Json& second = isReversed_ ? one : other;
        if (column.size) return column.size(first) > column.size(second);
        return column.text(first) < column.text(second);
    });
    return rows;
}

std::vector<TopView::Line> TopView::draw(const Answers& answers, std::size_t width,
                                         std::size_t rows) {
    std::vector<Line> lines;
    const auto status = statusLines(answers.status);
    for (const std::size_t i : {0U, 3U, 4U, 5U, 6U, 7U}) lines.push_back({cut(status[i], width)});
    std::size_t used = columns()[0].width;
    std::size_t count = 1;
    for (; count < columns().size(); ++count) {
        const std::size_t more = kGap + columns()[count].width;
        if (used + more > width) break;
        used += more;
    }
    const std::size_t nameWidth = columns()[0].width + (width > used ? width - used : 0);
    const auto line = [&](const std::function<std::string(const Column&)>& cellOf) {
        std::string text;
        for (std::size_t i = 0; i < count; ++i) {
            const Column& column = columns()[i];
            text += std::string(i == 0 ? 0 : kGap, ' ');
            text += fitted(printable(cellOf(column)), i == 0 ? nameWidth : column.width,
                           static_cast<bool>(column.size));
        }
        return cut(text, width);
    };
    lines.push_back({line([](const Column& column) { return std::string(column.heading); }),
                     Line::Look::Heading});
    const auto all = rowsOf(answers);
    const std::size_t room = rows > lines.size() + 1 ? rows - lines.size() - 1 : 0;
    scroll_ = std::min(scroll_, all.size() > room ? all.size() - room : 0);
    const std::size_t end = std::min(all.size(), scroll_ + room);
    for (std::size_t i = scroll_; i < end; ++i) {
        lines.push_back({line([&](const Column& column) { return column.text(all[i]); }),
                         all[i].contains("behind_ms") ? Line::Look::Alarm : Line::Look::Plain});
    }
    lines.resize(std::min(lines.size(), rows > 0 ? rows - 1 : 0));
    lines.push_back({cut(footer(end - std::min(scroll_, end), all.size()), width)});
    return lines;
}

std::string TopView::footer(std::size_t shown, std::size_t all) const {
    if (isTyping_) return "filter: " + filter_ + "_";
    std::string keys;
    for (const Column& column : columns()) keys += column.key;
    return fmt::format("{} of {}{}  q quit  t {}  / filter  r reverse  sort: {}", shown, all,
                       filter_.empty() ? "" : " with '" + filter_ + "'",
                       showsSubjects_ ? "sessions" : "subjects", keys);
}

}  // namespace kvx::tool
