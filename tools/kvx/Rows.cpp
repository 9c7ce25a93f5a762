// Rows on their way to a reader. Values keep the order of the first record that had them; a lookup
// by name serves the others, which may lack some.

#include "tools/kvx/Rows.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "mom/net/VekText.h"
#include "tools/kvx/Columns.h"
#include "tools/kvx/DatumJson.h"

namespace kvx::tool {

namespace {

std::string valueText(const CVekBaseRecord& record, const std::string& column) {
    return tool::valueText(record.RRGetValue(column.c_str()));
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

void writeLine(std::FILE* out, std::string& line) {
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), out);
    line.clear();
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
    for (const auto& record : records) noteColumns(*record);
    std::move(records.begin(), records.end(), std::back_inserter(records_));
}

void Rows::noteColumns(const CVekBaseRecord& record) {
    for (int i = 0; i < record.RRSize(); ++i) {
        const char* name = record.RRNameAt(i);
        if (std::find(columns_.begin(), columns_.end(), name) == columns_.end()) {
            columns_.emplace_back(name);
        }
    }
}

void Rows::print(RowFormat format, std::FILE* out) const {
    switch (format) {
        case RowFormat::Table:
            return printTable(out);
        case RowFormat::Json:
            return printJson(out);
        case RowFormat::Csv:
            return printCsv(out);
    }
}

void Rows::printTable(std::FILE* out) const {
    std::vector<std::size_t> widths;
    for (const auto& column : columns_) {
        std::size_t widest = displayWidth(printable(column));
        for (const auto& record : records_) {
            widest = std::max(widest, displayWidth(printable(valueText(*record, column))));
        }
        widths.push_back(widest);
    }
    std::string line;
    const auto writeRow = [&](auto&& cell) {
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (i != 0) line += "  ";
            appendPadded(line, cell(i), i + 1 == columns_.size() ? 0 : widths[i]);
        }
        writeLine(out, line);
    };
    writeRow([&](std::size_t i) { return printable(columns_[i]); });
    writeRow([&](std::size_t i) { return std::string(widths[i], '-'); });
    for (const auto& record : records_) {
        writeRow([&](std::size_t i) { return printable(valueText(*record, columns_[i])); });
    }
}

void Rows::printJson(std::FILE* out) const {
    std::string line;
    for (const auto& record : records_) {
        line = "{";
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (i != 0) line += ",";
            line +=
                jsonString(columns_[i]) + ":" + jsonValue(record->RRGetValue(columns_[i].c_str()));
        }
        line += "}";
        writeLine(out, line);
    }
}

void Rows::printCsv(std::FILE* out) const {
    std::string line;
    const auto writeRow = [&](auto&& cell) {
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (i != 0) line += ",";
            line += csvField(cell(i));
        }
        writeLine(out, line);
    };
    writeRow([&](std::size_t i) { return columns_[i]; });
    for (const auto& record : records_) {
        writeRow([&](std::size_t i) { return valueText(*record, columns_[i]); });
    }
}

}  // namespace kvx::tool
