#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvx/Record.h"
#include "mom/mom.h"
#include "tools/bus/QueryColumns.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

/// A value of a record as text; empty for null.
std::string valueText(const CVekAtom* value);

/// A value of a record as JSON: a number, a string, or null.
std::string jsonValue(const CVekAtom* value);

using bus::equalIgnoringCase;
using bus::selectedColumns;

/// The rows of an answer. Their columns are those that the query selects, in its order, whatever
/// the records hold; when it names none, those of all records in order of first appearance.
class Rows {
  public:
    using Write = std::function<void(std::string_view line)>;

    explicit Rows(std::vector<std::string> selected = {}) : selected_(std::move(selected)) {}

    void add(Record record);

    std::size_t size() const { return records_.size(); }

    /// Passes all rows to `write`, line by line with the line ends: an aligned table with a
    /// heading, one JSON object per line, or comma-separated values with a heading. A missing value
    /// is empty, or null in JSON. Control characters become spaces, so that no answer can control a
    /// terminal; comma-separated values keep them unless `forTerminal`.
    void print(RowFormat format, const Write& write, bool forTerminal = false) const;

  private:
    struct Column {
        std::string heading;
        std::string field;  // of the records; its case may differ from the query's
    };

    void noteFields(const CVekBaseRecord& record);
    std::vector<Column> columns() const;
    void printTable(const std::vector<Column>& columns, const Write& write) const;
    void printJson(const std::vector<Column>& columns, const Write& write) const;
    void printCsv(const std::vector<Column>& columns, const Write& write, bool forTerminal) const;

    const std::vector<std::string> selected_;
    std::vector<Record> records_;
    std::vector<std::string> fields_;  // of all records, in order of first appearance
};

/// The number of characters, without UTF-8 continuation bytes.
std::size_t displayWidth(const std::string& text);

/// Appends `text` and as many spaces as make it `width` characters wide.
void appendPadded(std::string& line, const std::string& text, std::size_t width);

/// Rows of cells as lines whose columns are aligned, two spaces between them.
std::vector<std::string> alignedLines(const std::vector<std::vector<std::string>>& rows);

}  // namespace kvx::tool
