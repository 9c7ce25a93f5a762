#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>

#include "examples/modeld/store/Store.h"

namespace modeld {

/// A refusal with SQLite's error text.
Refusal failed(sqlite3* database, const std::string& doing);

/// Recreates `table`, a quoted name, and fills it from the files of `source`, inside the caller's
/// transaction. A source without its key column is refused before any row is read. A column holds
/// integers when every value of it is one, else text.
std::optional<Refusal> fillTable(sqlite3* database, const Source& source, const std::string& table,
                                 const Progress& progress);

/// Indexes the key column of `source.table`, if it has one that is not indexed.
std::optional<Refusal> indexKey(sqlite3* database, const Source& source);

}  // namespace modeld
