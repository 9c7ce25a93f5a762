#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "mom/mom.h"
#include "tools/kvx/Options.h"

namespace kvx::tool {

/// A value of a record as text; empty for null.
std::string valueText(const CVekAtom* value);

/// A value of a record as JSON: a number, a string, or null.
std::string jsonValue(const CVekAtom* value);

/// The rows of an answer, as records came in, with their columns in order of first appearance.
class Rows {
  public:
    void add(std::vector<std::unique_ptr<CVekBaseRecord>> records);

    std::size_t size() const { return records_.size(); }
    const CVekBaseRecord& at(std::size_t row) const { return *records_[row]; }

    /// Writes all rows: an aligned table with a heading, one JSON object a line, or comma-separated
    /// values with a heading. A missing value is empty, or null in JSON. Control characters in a
    /// table become spaces so that no answer can steer the terminal.
    void print(RowFormat format, std::FILE* out) const;

  private:
    void noteColumns(const CVekBaseRecord& record);
    void printTable(std::FILE* out) const;
    void printJson(std::FILE* out) const;
    void printCsv(std::FILE* out) const;

    std::vector<std::unique_ptr<CVekBaseRecord>> records_;
    std::vector<std::string> columns_;
};

}  // namespace kvx::tool
