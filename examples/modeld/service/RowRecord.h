#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// Adds a field, or replaces its value.
void addField(CVekBaseRecord& record, const char* name, std::unique_ptr<CVekAtom> value);

/// Adds the columns of a row as fields: integers with 64 bits, all else as text, nothing for an
/// empty value.
void addColumns(CVekBaseRecord& record, const Row& row);

/// Rows of one answer, copied from the store into two buffers, so that another thread can encode
/// them. All rows have the columns of the first. One thread at a time.
class RowBlock {
  public:
    void add(const Row& row);
    std::size_t size() const { return columns_.empty() ? 0 : values_.size() / columns_.size(); }

    /// Adds one record per row to `transport`: the columns as fields, without empty values.
    void encode(CVekTransport& transport) const;

  private:
    struct Value {
        ValueKind kind = ValueKind::Null;
        std::int64_t number = 0;  // an integer; of a text, its length
    };

    std::vector<std::string> columns_;
    std::vector<Value> values_;  // row after row
    std::string texts_;          // in the order of their values
};

}  // namespace modeld
