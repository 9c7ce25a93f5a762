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
            line += bus::csvField(forTerminal ? printable(text) : text);
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
