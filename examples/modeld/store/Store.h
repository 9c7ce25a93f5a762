#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "examples/modeld/oql/Query.h"

namespace modeld {

/// Why a store refused. The service turns these into the statuses that travel to the querier.
enum class StoreError { NoDatabase, NoTable, NoColumn, TypeMismatch, BadSource, Failed };

/// What went wrong, in words for the user, and where in the query text (0 when it has no place
/// there).
struct Refusal {
    StoreError error = StoreError::Failed;
    std::string message;
    oql::Position position = 0;
};

enum class ValueKind { Null, Integer, Real, Text };

/// One row of an answer, valid during the call that shows it.
class Row {
  public:
    explicit Row(sqlite3_stmt* statement) : statement_(statement) {}

    int size() const;
    const char* name(int column) const;
    ValueKind kind(int column) const;
    std::int64_t integer(int column) const;
    std::string_view text(int column) const;  ///< any kind, as text

  private:
    sqlite3_stmt* statement_;
};

/// Which files a table is filled from, and how far that has come.
struct Source {
    std::vector<std::string>
        files;  ///< comma-separated, with one and the same line of column names
    std::string table;
    std::string key;  ///< a column to index; empty for none
};
using Progress = std::function<void(std::uint64_t rows)>;

/// A SQLite database behind the queries of a model. One object belongs to one thread at a time;
/// several may stand on one file.
class Store {
  public:
    enum class Access { ReadOnly, ReadWrite };

    /// Null, with `refusal` filled, when the file cannot be opened.
    static std::unique_ptr<Store> open(const std::string& path, Access access, Refusal& refusal);

    /// Fills `source.table` anew in one transaction: on a refusal the table is as it was before.
    /// A column holds integers when every value of it is one, written the plain way; else text.
    /// Column names become lower case, with an underscore for whatever a name cannot hold.
    std::optional<Refusal> load(const Source& source, const Progress& progress);

    /// Runs a query, showing every row to `visit` until that returns false. The number of rows
    /// shown is left in `rows`.
    std::optional<Refusal> run(const oql::Query& query,
                               const std::function<bool(const Row&)>& visit, std::uint64_t& rows);

  private:
    struct Close {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };

    explicit Store(sqlite3* database) : database_(database) {}

    std::unique_ptr<sqlite3, Close> database_;
};

}  // namespace modeld
