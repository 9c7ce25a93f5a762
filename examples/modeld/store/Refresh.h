#pragma once

#include <sqlite3.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "examples/modeld/store/Sql.h"
#include "examples/modeld/store/Store.h"

namespace modeld {

/// One refresh of a table from its files: `stage`, outside any transaction, then `apply` inside
/// one.
class Refresh {
  public:
    /// Both must outlive the object.
    Refresh(sqlite3* database, const Source& source);
    ~Refresh();
    Refresh(const Refresh&) = delete;
    Refresh& operator=(const Refresh&) = delete;

    /// Reads the files into a temporary table of this connection.
    [[nodiscard]] std::optional<Refusal> stage(const Progress& progress);

    /// Finds the differences, stores a notice of each, and makes the table equal to the staged one.
    [[nodiscard]] std::optional<Refusal> apply(const Describe& describe, Refreshed& done);

  private:
    std::optional<Refusal> compare();
    std::optional<Refusal> makeRoomForNotices();
    std::optional<Refusal> keepNotices(Change change, const Describe& describe,
                                       std::uint64_t& rows);
    std::optional<Refusal> changeRows();
    std::optional<Refusal> replaceTable();
    std::string identity(const sql::Table& table) const;
    std::string differs() const;
    bool all(std::initializer_list<std::string> commands);

    sqlite3* database_;
    const Source& source_;
    sql::Table present_;
    sql::Table staged_;
    std::string rowid_;  ///< a name of the row number that no column has
};

/// The notices stored in the database. Their numbers ascend and are never reused.
bool hasNotices(sqlite3* database);
std::optional<Refusal> readNotices(sqlite3* database, std::int64_t after,
                                   const VisitNotices& visit);
std::optional<Refusal> forgetNotices(sqlite3* database, std::int64_t upTo);
std::optional<Refusal> dropNotices(sqlite3* database, std::chrono::seconds olderThan);

}  // namespace modeld
