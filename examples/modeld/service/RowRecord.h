#pragma once

#include <vector>

#include "examples/modeld/store/Store.h"
#include "kvx/Record.h"

namespace modeld {

/// Rows as records: the columns are the fields, integers with 64 bits, all else as text, nothing
/// for an empty value. One thread at a time.
class RowRecord {
  public:
    /// Valid until the next call. Rows with values in the same columns share one record, so that
    /// names and fields are built once.
    const kvx::Record& of(const Row& row);

  private:
    kvx::Record record_;
    CVekBaseRecord* fields_ = nullptr;  // owned by record_
    std::vector<bool> filled_;          // which columns have a value
};

/// Adds a field, or replaces its value.
void addField(CVekBaseRecord& record, const char* name, std::unique_ptr<CVekAtom> value);

/// Adds the columns of a row as fields, as above.
void addColumns(CVekBaseRecord& record, const Row& row);

}  // namespace modeld
