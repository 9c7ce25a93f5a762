#pragma once

#include <sqlite3.h>

#include <chrono>
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
/// Busy: another process was writing for longer than anyone should wait without a word.
enum class StoreError { NoDatabase, NoTable, NoColumn, TypeMismatch, BadSource, Busy, Failed };

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
    /// The last `hidden` columns of the statement are not the row's.
    explicit Row(sqlite3_stmt* statement, int hidden = 0)
        : statement_(statement), hidden_(hidden) {}

    int size() const;
    const char* name(int column) const;
    ValueKind kind(int column) const;
    std::int64_t integer(int column) const;
    std::string_view text(int column) const;  ///< any kind, as text

  private:
    sqlite3_stmt* statement_;
    int hidden_;
};

/// Which files a table is filled from, and how far that has come.
struct Source {
    std::vector<std::string>
        files;  ///< comma-separated, with one and the same line of column names
    std::string table;
    std::string key;  ///< a column to index; empty for none
};

/// Is told from time to time how many rows have been read of `all`, which is 0 while it is not
/// known: files are read twice, and first only to learn what they hold.
using Progress = std::function<void(std::uint64_t rows, std::uint64_t all)>;

enum class Change { Inserted, Changed, Deleted };

/// Makes the notice that tells of one change: any bytes. A changed row is shown as it is now.
using Describe = std::function<std::string(Change, const Row&)>;

/// Is shown a notice and its number.
using VisitNotice = std::function<void(std::int64_t number, std::string_view notice)>;

/// How many rows a refresh found different.
struct Refreshed {
    std::uint64_t inserted = 0;
    std::uint64_t changed = 0;
    std::uint64_t deleted = 0;

    std::uint64_t all() const { return inserted + changed + deleted; }
};

/// A SQLite database behind the queries of a model. One object belongs to one thread at a time;
/// several may stand on one file.
class Store {
  public:
    enum class Access { ReadOnly, ReadWrite };

    /// Null, with `refusal` filled, when the file cannot be opened or is no database.
    static std::unique_ptr<Store> open(const std::string& path, Access access, Refusal& refusal);

    /// Fills `source.table` anew in one transaction: on a refusal the table is as it was before.
    /// A column holds integers when every value of it is one, written the plain way; else text.
    /// Column names become lower case, with an underline for every character of ASCII that is no
    /// letter or digit; a heading that is no UTF-8 is refused.
    std::optional<Refusal> load(const Source& source, const Progress& progress);

    /// Waits while another process writes; refuses with `Busy` after five seconds.
    std::optional<Refusal> awaitWriter();

    /// Whether there is a table of that name that queries can reach.
    bool hasTable(const std::string& name) const;

    /// Brings `source.table` in line with its files by changing only the rows that differ. Rows are
    /// the same when their keys are; without a key, or of one key twice, the values and the order
    /// tell. In one transaction with the changes it keeps the notices that `describe` makes of
    /// them, until somebody takes them or a newer one is of the same row. On a refusal everything
    /// is as it was before.
    std::optional<Refusal> refresh(const Source& source, const Describe& describe, Refreshed& done,
                                   const Progress& progress = {});

    bool hasNotices() const;

    /// Shows the kept notices with numbers above `after` to `visit`, the oldest first.
    std::optional<Refusal> readNotices(std::int64_t after, const VisitNotice& visit);

    /// Forgets the notices with numbers up to `upTo`.
    std::optional<Refusal> forgetNotices(std::int64_t upTo);

    /// Forgets the notices that have been kept for longer.
    std::optional<Refusal> dropNotices(std::chrono::seconds olderThan);

    /// Moves what was written since the last time from the log into the database, as far as readers
    /// allow at this moment; `framesLeft` is what stays behind.
    std::optional<Refusal> checkpoint(int& framesLeft);

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
