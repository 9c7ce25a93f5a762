#pragma once

#include <sqlite3.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "examples/modeld/oql/Query.h"
#include "examples/modeld/store/Store.h"

namespace modeld::sql {

struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

/// Null when SQLite refuses the text.
Statement prepare(sqlite3* database, const std::string& text);

/// Runs a text that yields no rows. False when SQLite refuses.
bool execute(sqlite3* database, const std::string& text);

/// An SQL identifier: in double quotes, quotes inside doubled.
std::string quoted(const std::string& name);

/// The prefix of the store's own tables, which queries cannot reach.
inline constexpr const char kOwnTables[] = "_modeld_";

/// Whether a table of that name can be loaded and queried: it is neither SQLite's nor the store's
/// own.
bool isUsersTable(const std::string& name);

/// The columns of a table with their kinds, by name in lower case, in table order.
struct Table {
    std::string name;
    std::vector<std::pair<std::string, ValueKind>> columns;

    const std::pair<std::string, ValueKind>* find(std::string_view column) const;
};

/// Nothing when there is no such table, or it is not a user's.
std::optional<Table> describe(sqlite3* database, const std::string& name,
                              const char* schema = "main");

/// A statement and its unbound values: of a query text, only names found in the schema are part of
/// `text`.
struct Command {
    std::string text;
    std::vector<oql::Literal> values;
};

/// Translates a query into a command against `table`, or refuses an unknown name or invalid
/// comparison.
std::variant<Command, Refusal> translate(const oql::Query& query, const Table& table);

/// Prepares a command and binds its values. Null when SQLite refuses.
Statement bind(sqlite3* database, const Command& command);

}  // namespace modeld::sql
