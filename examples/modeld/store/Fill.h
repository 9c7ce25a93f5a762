#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>

#include "examples/modeld/store/Store.h"

namespace modeld {

/// A refusal in SQLite's own words.
Refusal failed(sqlite3* database, const std::string& doing);

/// Makes `table`, a quoted name, anew and fills it from the files of `source`. The caller has begun
/// a transaction. A source without its key column is refused before anything is read in. A column
/// holds integers when every value of it is one, else text.
std::optional<Refusal> fillTable(sqlite3* database, const Source& source, const std::string& table,
                                 const Progress& progress);

/// Indexes the key column of `source.table`, when it has one and it is not indexed yet.
std::optional<Refusal> indexKey(sqlite3* database, const Source& source);

}  // namespace modeld
