#pragma once

#include <memory>

#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// Adds a field; a field of the name that is there already gets the new value.
void addField(CVekBaseRecord& record, const char* name, std::unique_ptr<CVekAtom> value);

/// Adds the columns of a row as fields: integers as 64-bit ones, all else as texts, nothing for a
/// value that is empty.
void addColumns(CVekBaseRecord& record, const Row& row);

}  // namespace modeld
