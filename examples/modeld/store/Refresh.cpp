// Finds the differences between a table and its files, and makes the table equal. The files are
// read into a temporary table. Every row of either side gets an identity, the text of its key and
// the number of rows with the same key before it, and the two sides are joined on that: a row
// without a partner was deleted or inserted, partners that differ were changed. Unchanged rows are
// not written.
//
// A notice has the current row, so only the newest of a row is kept. A late publisher, as after a
// take-over, never publishes an older value.
//
// Two processes may share one database. The transaction takes the write lock before it compares, so
// the second one finds no difference; since the notices are rows of the database too, either may do
// the work and the active one publishes.

#include "examples/modeld/store/Refresh.h"

#include <algorithm>
#include <vector>

#include "examples/modeld/store/Fill.h"

namespace modeld {

namespace {

constexpr const char* kStaged = "temp.staged";
constexpr const char* kNotices = "_modeld_notices";
constexpr std::size_t kNoticesAtOnce = 100;
constexpr std::size_t kNoticeBytesAtOnce = std::size_t{4} << 20U;

// The order of the notices of one refresh: a deleted row comes before one that may replace it.
constexpr Change kOrder[] = {Change::Deleted, Change::Changed, Change::Inserted};

std::string number(Change change) {
    return std::to_string(static_cast<int>(change));
}

std::string columnList(const sql::Table& table) {
    std::string list;
    for (const auto& column : table.columns) list += ", " + sql::quoted(column.first);
    return list;
}

// Rows of one side with their identities: r is the row number, k the key, n the index among equal
// keys.
std::string identitiesText(const char* name, const std::string& table, const std::string& rowid,
                           const std::string& key) {
    return std::string("CREATE TEMP TABLE ") + name + " AS SELECT " + rowid + " AS r, " + key +
           " AS k, row_number() OVER (PARTITION BY " + key + " ORDER BY " + rowid + ") AS n FROM " +
           table;
}

}  // namespace

Refresh::Refresh(sqlite3* database, const Source& source) : database_(database), source_(source) {}

Refresh::~Refresh() {
    for (const char* table : {"staged", "before", "after", "changes"}) {
        sql::execute(database_, std::string("DROP TABLE IF EXISTS temp.") + table);
    }
}

bool Refresh::all(std::initializer_list<std::string> commands) {
    return std::all_of(commands.begin(), commands.end(), [this](const std::string& command) {
        return sql::execute(database_, command);
    });
}

std::optional<Refusal> Refresh::stage(const Progress& progress) {
    if (!sql::execute(database_, "BEGIN")) return failed(database_, "reading the files");
    auto refusal = fillTable(database_, source_, kStaged, progress);
    if (!sql::execute(database_, refusal ? "ROLLBACK" : "COMMIT") && !refusal) {
        refusal = failed(database_, "reading the files");
    }
    if (refusal) return refusal;
    staged_ = sql::describe(database_, "staged", "temp").value_or(sql::Table{});
    return std::nullopt;
}

std::optional<Refusal> Refresh::apply(const Describe& describe, Refreshed& done) {
    done = {};
    present_ = sql::describe(database_, source_.table).value_or(sql::Table{});
    for (const char* name : {"rowid", "oid", "_rowid_"}) {
        if (!present_.find(name) && !staged_.find(name)) rowid_ = name;
    }
    if (rowid_.empty()) return Refusal{StoreError::BadSource, "every row number is a column", 0};
    if (auto refusal = compare()) return refusal;
    if (auto refusal = makeRoomForNotices()) return refusal;
    std::uint64_t* counts[] = {&done.inserted, &done.changed, &done.deleted};
    for (const Change change : kOrder) {
        if (auto refusal = keepNotices(change, describe, *counts[static_cast<int>(change)])) {
            return refusal;
        }
    }
    const bool sameColumns = present_.columns == staged_.columns;
    if (auto refusal = sameColumns ? changeRows() : replaceTable()) return refusal;
    return indexKey(database_, source_);
}

// The key, or without one the whole row, as a non-null text.
std::string Refresh::identity(const sql::Table& table) const {
    const auto* key = source_.key.empty() ? nullptr : table.find(source_.key);
    if (key != nullptr) return "coalesce(CAST(" + sql::quoted(key->first) + " AS TEXT), '')";
    std::string whole = "''";
    for (const auto& column : table.columns) {
        whole += "||','||quote(" + sql::quoted(column.first) + ")";
    }
    return whole;
}

// Whether the partners o and s differ. If the columns differ, all rows count as changed.
std::string Refresh::differs() const {
    if (present_.columns != staged_.columns) return "1";
    std::string text = "0";
    for (const auto& column : staged_.columns) {
        text += " OR o." + sql::quoted(column.first) + " IS NOT s." + sql::quoted(column.first);
    }
    return text;
}

std::optional<Refusal> Refresh::compare() {
    const std::string table = "main." + sql::quoted(source_.table);
    const std::string nothing = "CREATE TEMP TABLE before (r, k, n)";
    const std::string partners = " ON b.k = a.k AND b.n = a.n";
    const std::string insert = "INSERT INTO temp.changes SELECT ";
    const bool done =
        all({present_.columns.empty() ? nothing
                                      : identitiesText("before", table, rowid_, identity(present_)),
             identitiesText("after", kStaged, rowid_, identity(staged_)),
             "CREATE INDEX temp.before_k ON before (k, n)",
             "CREATE INDEX temp.after_k ON after (k, n)",
             "CREATE TEMP TABLE changes (kind INTEGER, present INTEGER, staged INTEGER, row TEXT)",
             insert + number(Change::Deleted) +
                 ", b.r, NULL, b.k || ' ' || b.n FROM before b LEFT JOIN after a" + partners +
                 " WHERE a.r IS NULL ORDER BY b.r",
             insert + number(Change::Inserted) +
                 ", NULL, a.r, a.k || ' ' || a.n FROM after a LEFT JOIN before b" + partners +
                 " WHERE b.r IS NULL ORDER BY a.r"}) &&
        (present_.columns.empty() ||
         all({insert + number(Change::Changed) +
              ", b.r, a.r, a.k || ' ' || a.n FROM after a JOIN before b" + partners + " JOIN " +
              table + " o ON o." + rowid_ + " = b.r JOIN " + kStaged + " s ON s." + rowid_ +
              " = a.r WHERE " + differs() + " ORDER BY a.r"}));
    return done ? std::nullopt : std::optional(failed(database_, "comparing the rows"));
}

// Databases of earlier versions lack the row of a notice.
std::optional<Refusal> Refresh::makeRoomForNotices() {
    const std::string notices = kNotices;
    const bool done =
        all({"CREATE TABLE IF NOT EXISTS " + notices +
             " (id INTEGER PRIMARY KEY AUTOINCREMENT, made INTEGER, notice BLOB, row TEXT)"}) &&
        (sql::prepare(database_, "SELECT row FROM " + notices) ||
         all({"ALTER TABLE " + notices + " ADD COLUMN row TEXT"})) &&
        all({"DELETE FROM " + notices + " WHERE row IN (SELECT row FROM temp.changes)"});
    return done ? std::nullopt : std::optional(failed(database_, "keeping the notices"));
}

std::optional<Refusal> Refresh::keepNotices(Change change, const Describe& describe,
                                            std::uint64_t& rows) {
    const bool deleted = change == Change::Deleted;
    if (deleted && present_.columns.empty()) return std::nullopt;
    const std::string table = deleted ? "main." + sql::quoted(source_.table) : kStaged;
    const sql::Statement select =
        sql::prepare(database_, "SELECT t.*, c.row FROM temp.changes c JOIN " + table + " t ON t." +
                                    rowid_ + " = c." + (deleted ? "present" : "staged") +
                                    " WHERE c.kind = " + number(change) + " ORDER BY c." + rowid_);
    const sql::Statement insert =
        sql::prepare(database_, std::string("INSERT INTO ") + kNotices +
                                    " (made, notice, row) VALUES "
                                    "(CAST(strftime('%s') AS INTEGER), ?, ?)");
    if (!select || !insert) return failed(database_, "keeping the notices");
    int step = sqlite3_step(select.get());
    for (; step == SQLITE_ROW; step = sqlite3_step(select.get())) {
        const Row row(select.get(), 1);
        const std::string notice = describe(change, row);
        const std::string_view identity = row.text(row.size());
        sqlite3_bind_blob64(insert.get(), 1, notice.data(), notice.size(), SQLITE_STATIC);
        sqlite3_bind_text64(insert.get(), 2, identity.data(), identity.size(), SQLITE_STATIC,
                            SQLITE_UTF8);
        if (sqlite3_step(insert.get()) != SQLITE_DONE) {
            return failed(database_, "keeping the notices");
        }
        sqlite3_reset(insert.get());
        ++rows;
    }
    return step == SQLITE_DONE ? std::nullopt
                               : std::optional(failed(database_, "reading the changes"));
}

// A changed row keeps its number, and so its place; a new one, with a null number, gets the next.
std::optional<Refusal> Refresh::changeRows() {
    const std::string table = "main." + sql::quoted(source_.table);
    const std::string columns = columnList(staged_);
    const bool done =
        all({"DELETE FROM " + table + " WHERE " + rowid_ + " IN (SELECT present FROM temp.changes)",
             "INSERT INTO " + table + " (" + rowid_ + columns + ") SELECT c.present" + columns +
                 " FROM temp.changes c JOIN " + kStaged + " s ON s." + rowid_ +
                 " = c.staged ORDER BY c.kind DESC, c." + rowid_});
    return done ? std::nullopt : std::optional(failed(database_, "changing the rows"));
}

std::optional<Refusal> Refresh::replaceTable() {
    const std::string table = "main." + sql::quoted(source_.table);
    std::string columns;
    for (const auto& [name, kind] : staged_.columns) {
        columns += columns.empty() ? "" : ", ";
        columns += sql::quoted(name) + (kind == ValueKind::Integer ? " INTEGER" : " TEXT");
    }
    const bool done =
        all({"DROP TABLE IF EXISTS " + table, "CREATE TABLE " + table + " (" + columns + ")",
             "INSERT INTO " + table + " SELECT * FROM " + kStaged + " ORDER BY " + rowid_});
    return done ? std::nullopt : std::optional(failed(database_, "replacing the table"));
}

bool hasNotices(sqlite3* database) {
    const sql::Statement select =
        sql::prepare(database, std::string("SELECT 1 FROM ") + kNotices + " LIMIT 1");
    return select && sqlite3_step(select.get()) == SQLITE_ROW;
}

std::optional<Refusal> readNotices(sqlite3* database, std::int64_t after,
                                   const VisitNotices& visit) {
    const sql::Statement select =
        sql::prepare(database, std::string("SELECT notice, id FROM ") + kNotices + " WHERE id > " +
                                   std::to_string(after) + " ORDER BY id");
    if (!select) return failed(database, "reading the notices");
    std::vector<std::string> notices;
    std::size_t bytes = 0;
    std::int64_t last = 0;
    int step = sqlite3_step(select.get());
    for (; step == SQLITE_ROW; step = sqlite3_step(select.get())) {
        const Row row(select.get());
        bytes += row.text(0).size();
        if (notices.size() == kNoticesAtOnce || (!notices.empty() && bytes > kNoticeBytesAtOnce)) {
            if (!visit(last, notices)) return std::nullopt;
            notices.clear();
            bytes = row.text(0).size();
        }
        notices.emplace_back(row.text(0));
        last = row.integer(1);
    }
    if (step != SQLITE_DONE) return failed(database, "reading the notices");
    if (!notices.empty()) visit(last, notices);
    return std::nullopt;
}

std::optional<Refusal> forgetNotices(sqlite3* database, std::int64_t upTo) {
    if (sql::execute(database, std::string("DELETE FROM ") + kNotices +
                                   " WHERE id <= " + std::to_string(upTo))) {
        return std::nullopt;
    }
    return failed(database, "forgetting the notices");
}

std::optional<Refusal> dropNotices(sqlite3* database, std::chrono::seconds olderThan) {
    const std::string command = std::string("DELETE FROM ") + kNotices +
                                " WHERE made < CAST(strftime('%s') AS INTEGER) - " +
                                std::to_string(olderThan.count());
    if (sql::execute(database, command)) return std::nullopt;
    return failed(database, "dropping old notices");
}

}  // namespace modeld
