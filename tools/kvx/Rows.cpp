// Rows on their way to a reader. A lookup by name serves records that lack some of the columns.

#include "tools/kvx/Rows.h"

#include <algorithm>
#include <iterator>

#include "mom/net/VekText.h"
#include "tools/bus/Text.h"
#include "tools/kvx/Columns.h"
#include "tools/kvx/DatumJson.h"

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

}  // namespace

std::string valueText(const CVekAtom* value) {
    if (value == nullptr) return {};
    if (value->RAType() == VEK_TYPE_STRING) return value->RAString();
    const kvx::Text text(value->RAStrRep());
    return text ? text.get() : "";
}

std::string jsonValue(const CVekAtom* value) {
    if (value == nullptr) return "null";
    const bool integer = value->RAType() == VEK_TYPE_INT || value->RAType() == VEK_TYPE_INT64;
    return integer ? std::to_string(value->RAInt64()) : jsonString(valueText(value));
}

void Rows::add(std::vector<std::unique_ptr<CVekBaseRecord>> records) {
    for (const auto& record : records) noteFields(*record);
    std::move(records.begin(), records.end(), std::back_inserter(records_));
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
        case RowFormat::Table:
            return printTable(all, write);
        case RowFormat::Json:
            return printJson(all, write);
        case RowFormat::Csv:
            return printCsv(all, write, forTerminal);
    }
}

void Rows::printTable(const std::vector<Column>& columns, const Write& write) const {
    const auto value = [](const CVekBaseRecord& record, const Column& column) {
        return bus::printable(valueText(record.RRGetValue(column.field.c_str())));
    };
    std::vector<std::size_t> widths;
    for (const auto& column : columns) {
        std::size_t widest = displayWidth(bus::printable(column.heading));
        for (const auto& record : records_) {
            widest = std::max(widest, displayWidth(value(*record, column)));
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
    writeRow([&](std::size_t i) { return bus::printable(columns[i].heading); });
    writeRow([&](std::size_t i) { return std::string(widths[i], '-'); });
    for (const auto& record : records_) {
        writeRow([&](std::size_t i) { return value(*record, columns[i]); });
    }
}

void Rows::printJson(const std::vector<Column>& columns, const Write& write) const {
    for (const auto& record : records_) {
        std::string line = "{";
        for (auto column = columns.begin(); column != columns.end(); ++column) {
            // A key stands once, however often the column was selected.
            if (std::any_of(columns.begin(), column, [&](const Column& before) {
                    return before.heading == column->heading;
                })) {
                continue;
            }
            if (line.size() > 1) line += ",";
            line += jsonString(column->heading) + ":" +
                    jsonValue(record->RRGetValue(column->field.c_str()));
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
            line += csvField(forTerminal ? bus::printable(text) : text);
        }
        write(line + "\n");
    };
    writeRow([&](std::size_t i) { return columns[i].heading; });
    for (const auto& record : records_) {
        writeRow(
            [&](std::size_t i) { return valueText(record->RRGetValue(columns[i].field.c_str())); });
    }
}

}  // namespace kvx::tool
