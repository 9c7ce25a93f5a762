#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "examples/modeld/oql/Query.h"

namespace modeld {

/// Why a store refused. The service maps these to the statuses of its answers. Busy: another
/// process was writing for longer than the time limit.
enum class StoreError { NoDatabase, NoTable, NoColumn, TypeMismatch, BadSource, Busy, Failed };

/// An error text for the user, and its position in the query text (0 for none).
struct Refusal {
    StoreError error = StoreError::Failed;
    std::string message;
    oql::Position position = 0;
};

enum class ValueKind { Null, Integer, Real, Text };

/// One row of an answer, valid during the call that gets it.
class Row {
  public:
    /// The last `hidden` columns of the statement are not part of the row.
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

/// The source files of a table.
struct Source {
    std::vector<std::string> files;  ///< comma-separated, with the same line of column names
    std::string table;
    std::string key;  ///< a column to index; empty for none
};

/// Called from time to time with the number of rows read and the total, which is 0 during the first
/// of the two readings.
using Progress = std::function<void(std::uint64_t rows, std::uint64_t all)>;

enum class Change { Inserted, Changed, Deleted };

/// Makes the notice of one change: any bytes. A changed row has its new values.
using Describe = std::function<std::string(Change, const Row&)>;

/// Called with at most a hundred notices, of 4 MiB or one, and the number of the last; returns
/// whether to go on.
using VisitNotices = std::function<bool(std::int64_t last, std::span<const std::string> notices)>;

/// The numbers of rows that a refresh found different.
struct Refreshed {
    std::uint64_t inserted = 0;
    std::uint64_t changed = 0;
    std::uint64_t deleted = 0;

    std::uint64_t all() const { return inserted + changed + deleted; }
};

/// The SQLite database of a model. One thread at a time; several objects may use one file.
class Store {
  public:
    enum class Access { ReadOnly, ReadWrite };

    /// Null, with `refusal` set, when the file cannot be opened or is not a database.
    static std::unique_ptr<Store> open(const std::string& path, Access access, Refusal& refusal);

    /// Refills `source.table` in one transaction: on a refusal the table is unchanged. A column
    /// holds integers when every value of it is a plain integer, else text. Column names are the
    /// headings in lower case, with an underline for every ASCII character that is neither letter
    /// nor digit; a heading that is not UTF-8 is refused.
    std::optional<Refusal> load(const Source& source, const Progress& progress);

    /// Waits while another process writes; refuses with `Busy` after five seconds.
    std::optional<Refusal> awaitWriter();

    /// Whether there is a table of that name that queries can reach.
    bool hasTable(const std::string& name) const;

    /// Makes `source.table` equal to its files by changing only the rows that differ. Rows are
    /// identified by their key; without a key, or with equal keys, by values and order. In the same
    /// transaction it stores the notices that `describe` makes, until they are deleted or replaced
    /// by a newer one of the same row. On a refusal nothing is changed.
    std::optional<Refusal> refresh(const Source& source, const Describe& describe, Refreshed& done,
                                   const Progress& progress = {});

    bool hasNotices() const;

    /// Calls `visit` for the stored notices with numbers above `after`, the oldest first, until it
    /// returns false. Nobody writes to the database meanwhile: the rows are as the notices tell.
    std::optional<Refusal> readNotices(std::int64_t after, const VisitNotices& visit);

    /// Deletes the notices with numbers up to `upTo`.
    std::optional<Refusal> forgetNotices(std::int64_t upTo);

    /// Deletes the notices older than that.
    std::optional<Refusal> dropNotices(std::chrono::seconds olderThan);

    /// Moves the write-ahead log into the database, as far as current readers allow; sets
    /// `framesLeft` to the rest.
    std::optional<Refusal> checkpoint(int& framesLeft);

    /// Until `endSnapshot` every `run` reads the database as it is now. On a refusal nothing has
    /// begun.
    std::optional<Refusal> beginSnapshot();
    /// Without a snapshot does nothing.
    void endSnapshot();

    /// Runs a query and calls `visit` for every row until it returns false. Sets `rows` to the
    /// number of calls.
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
