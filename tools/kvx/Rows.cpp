// Formatting rows for output. Values are looked up by name, since records may lack some columns.

#include "tools/kvx/Rows.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "platform/Memory.h"
#include "platform/Text.h"
#include "tools/bus/DatumJson.h"

namespace kvx::tool {

namespace {

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted.push_back('"');
        quoted.push_back(c);
    }
    return quoted + '"';
}

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

std::string valueText(const CVekAtom* value) {
    if (value == nullptr) return {};
    if (value->RAType() == VEK_TYPE_STRING) return value->RAString();
    const kvx::Text text(value->RAStrRep());
    return text ? text.get() : "";
}

std::string jsonValue(const CVekAtom* value) {
    if (value == nullptr) return "null";
    const bool integer = value->RAType() == VEK_TYPE_INT || value->RAType() == VEK_TYPE_INT64;
    return integer ? std::to_string(value->RAInt64()) : bus::jsonString(valueText(value));
}

void Rows::add(Record record) {
    noteFields(record.base());
    records_.push_back(std::move(record));
}

void Rows::noteFields(const CVekBaseRecord& record) {
    for (int i = 0; i < record.RRSize(); ++i) {
        const char* name = record.RRNameAt(i);
        if (std::find(fields_.begin(), fields_.end(), name) == fields_.end()) {
            fields_.emplace_back(name);
        }
    }
}

std::vector<Rows::Column> Rows::columns() const {
    std::vector<Column> columns;
    for (const auto& name : selected_.empty() ? fields_ : selected_) {
        auto field = std::find(fields_.begin(), fields_.end(), name);
        if (field == fields_.end()) {
            field = std::find_if(fields_.begin(), fields_.end(), [&](const std::string& one) {
                return equalIgnoringCase(one, name);
            });
        }
        columns.push_back({name, field != fields_.end() ? *field : name});
    }
    return columns;
}

void Rows::print(RowFormat format, const Write& write, bool forTerminal) const {
    const std::vector<Column> all = columns();
    if (all.empty()) return;
    switch (format) {
        case RowFormat::AsTable:
            return printTable(all, write);
        case RowFormat::AsJson:
            return printJson(all, write);
        case RowFormat::AsCsv:
            return printCsv(all, write, forTerminal);
    }
}

void Rows::printTable(const std::vector<Column>& columns, const Write& write) const {
    const auto value = [](const CVekBaseRecord& record, const Column& column) {
        return printable(valueText(record.RRGetValue(column.field.c_str())));
    };
    std::vector<std::size_t> widths;
    for (const auto& column : columns) {
        std::size_t widest = displayWidth(printable(column.heading));
        for (const auto& record : records_) {
            widest = std::max(widest, displayWidth(value(record.base(), column)));
        }
        widths.push_back(widest);
    }
    const auto writeRow = [&](auto&& cell) {
        std::string line;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (i != 0) line += "  ";
            appendPadded(line, cell(i), i + 1 == columns.size() ? 0 : widths[i]);
        }
        write(line + "\n");
    };
    writeRow([&](std::size_t i) { return printable(columns[i].heading); });
    writeRow([&](std::size_t i) { return std::string(widths[i], '-'); });
    for (const auto& record : records_) {
        writeRow([&](std::size_t i) { return value(record.base(), columns[i]); });
    }
}

void Rows::printJson(const std::vector<Column>& columns, const Write& write) const {
    for (const auto& record : records_) {
        std::string line = "{";
        for (auto column = columns.begin(); column != columns.end(); ++column) {
            // A key is written once, even for a column selected twice.
            if (std::any_of(columns.begin(), column, [&](const Column& before) {
                    return before.heading == column->heading;
                })) {
                continue;
            }
            if (line.size() > 1) line += ",";
            line += bus::jsonString(column->heading) + ":" +
                    jsonValue(record.base().RRGetValue(column->field.c_str()));
        }
        write(line + "}\n");
    }
}

void Rows::printCsv(const std::vector<Column>& columns, const Write& write,
                    bool forTerminal) const {
    const auto writeRow = [&](auto&& cell) {
        std::string line;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (i != 0) line += ",";
            const std::string text = cell(i);
            line += csvField(forTerminal ? printable(text) : text);
        }
        write(line + "\n");
    };
    writeRow([&](std::size_t i) { return columns[i].heading; });
    for (const auto& record : records_) {
        writeRow([&](std::size_t i) {
            return valueText(record.base().RRGetValue(columns[i].field.c_str()));
        });
    }
}

bool equalIgnoringCase(std::string_view one, std::string_view other) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

std::size_t displayWidth(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80U;
    }));
}

void appendPadded(std::string& line, const std::string& text, std::size_t width) {
    line += text;
    const std::size_t taken = displayWidth(text);
    if (taken < width) line.append(width - taken, ' ');
}

std::vector<std::string> alignedLines(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    }
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string& line = lines.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (i != 0) line += "  ";
            appendPadded(line, row[i], i + 1 == row.size() ? 0 : widths[i]);
        }
    }
    return lines;
}

}  // namespace kvx::tool
