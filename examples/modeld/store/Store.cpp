// A model's data in SQLite. One transaction drops the old table and fills the new one, so readers
// see either.

#include "examples/modeld/store/Store.h"

#include <algorithm>
#include <system_error>

#include "examples/modeld/store/Fill.h"
#include "examples/modeld/store/Refresh.h"
#include "examples/modeld/store/Sql.h"
#include "platform/Text.h"

namespace modeld {

namespace {

constexpr int kBusyTimeoutMs = 5000;
// The page cache of a connection: tables of that size are not read from the file again.
constexpr const char* kCacheSize = "PRAGMA cache_size = -65536";  // KiB when negative

// Opening reads nothing, so another kind of file is detected only at the first access. A locked
// database is usable.
bool isUsable(sqlite3* database, Store::Access access) {
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    sql::execute(database, kCacheSize);
    const char* first =
        access == Store::Access::ReadOnly ? "PRAGMA schema_version" : "PRAGMA journal_mode = WAL";
    return sql::execute(database, first) ||
           (access == Store::Access::ReadOnly && sqlite3_errcode(database) == SQLITE_BUSY);
}

// SQLite's error text, with the system's error if there is one.
std::string reasonOf(sqlite3* database) {
    std::string reason = sqlite3_errmsg(database);
    const int error = database != nullptr ? sqlite3_system_errno(database) : 0;
    if (error != 0) reason += " (" + std::generic_category().message(error) + ")";
    return reason;
}

// Runs `work` in one transaction, rolled back on a refusal.
template <class Work>
std::optional<Refusal> inTransaction(sqlite3* database, const char* doing, Work&& work) {
    if (!sql::execute(database, "BEGIN IMMEDIATE")) return failed(database, doing);
    auto refusal = work();
    if (!refusal && !sql::execute(database, "COMMIT")) refusal = failed(database, doing);
    if (refusal) sql::execute(database, "ROLLBACK");
    return refusal;
}

std::optional<Refusal> badTable(const std::string& name) {
    if (sql::isUsersTable(name)) return std::nullopt;
    return Refusal{StoreError::BadSource, "'" + name + "' cannot be the name of a table", 0};
}

}  // namespace

int Row::size() const {
    return sqlite3_column_count(statement_) - hidden_;
}

const char* Row::name(int column) const {
    return sqlite3_column_name(statement_, column);
}

ValueKind Row::kind(int column) const {
    switch (sqlite3_column_type(statement_, column)) {
        case SQLITE_INTEGER:
            return ValueKind::Integer;
        case SQLITE_FLOAT:
            return ValueKind::Real;
        case SQLITE_NULL:
            return ValueKind::Null;
        default:
            return ValueKind::Text;
    }
}

std::int64_t Row::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::string_view Row::text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const int length = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string_view()
                            : std::string_view(bytes, static_cast<std::size_t>(length));
}

std::unique_ptr<Store> Store::open(const std::string& path, Access access, Refusal& refusal) {
    // A store is used by one thread at a time; SQLite's lock would be taken for every value read.
    const int flags = SQLITE_OPEN_NOMUTEX |
                      (access == Access::ReadOnly ? SQLITE_OPEN_READONLY
                                                  : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (path.empty()) {  // a temporary database in SQLite
        refusal = {StoreError::NoDatabase, "a database needs a file name", 0};
        return nullptr;
    }
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
    std::unique_ptr<Store> store(new Store(database));
    if (result == SQLITE_OK && isUsable(database, access)) return store;
    refusal = {StoreError::NoDatabase, path + ": " + reasonOf(database), 0};
    return nullptr;
}

std::optional<Refusal> Store::load(const Source& source, const Progress& progress) {
    if (auto refusal = badTable(source.table)) return refusal;
    sqlite3* database = database_.get();
    const std::string table = sql::quoted(source.table);
    return inTransaction(database, "filling the table", [&]() -> std::optional<Refusal> {
        if (auto refusal = fillTable(database, source, table, progress)) return refusal;
        return indexKey(database, source);
    });
}

std::optional<Refusal> Store::awaitWriter() {
    return inTransaction(database_.get(), "waiting for another process",
                         []() -> std::optional<Refusal> { return std::nullopt; });
}

bool Store::hasTable(const std::string& name) const {
    return sql::describe(database_.get(), name).has_value();
}

std::optional<Refusal> Store::refresh(const Source& source, const Describe& describe,
                                      Refreshed& done, const Progress& progress) {
    if (auto refusal = badTable(source.table)) return refusal;
    sqlite3* database = database_.get();
    Refresh refresh(database, source);
    if (auto refusal = refresh.stage(progress)) return refusal;
    return inTransaction(database, "bringing the table up to date",
                         [&] { return refresh.apply(describe, done); });
}

bool Store::hasNotices() const {
    return modeld::hasNotices(database_.get());
}

std::optional<Refusal> Store::readNotices(std::int64_t after, const VisitNotices& visit) {
    if (!hasNotices()) return std::nullopt;
    return inTransaction(database_.get(), "reading the notices",
                         [&] { return modeld::readNotices(database_.get(), after, visit); });
}

std::optional<Refusal> Store::forgetNotices(std::int64_t upTo) {
    if (!hasNotices()) return std::nullopt;
    return modeld::forgetNotices(database_.get(), upTo);
}

std::optional<Refusal> Store::dropNotices(std::chrono::seconds olderThan) {
    if (!hasNotices()) return std::nullopt;
    return modeld::dropNotices(database_.get(), olderThan);
}

std::optional<Refusal> Store::checkpoint(int& framesLeft) {
    sqlite3* database = database_.get();
    int frames = 0;
    int moved = 0;
    if (!sql::execute(database, "PRAGMA optimize")) return failed(database, "optimizing");
    const int result =
        sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_PASSIVE, &frames, &moved);
    // Busy: another member of the group is writing.
    if (result != SQLITE_OK && result != SQLITE_BUSY) {
        return failed(database, "moving the log into the database");
    }
    framesLeft = std::max(0, frames - moved);
    return std::nullopt;
}

// The first read takes the snapshot, not BEGIN.
std::optional<Refusal> Store::beginSnapshot() {
    if (sql::execute(database_.get(), "BEGIN") &&
        sql::execute(database_.get(), "SELECT 1 FROM sqlite_master LIMIT 1")) {
        return std::nullopt;
    }
    auto refusal = failed(database_.get(), "beginning to read");
    endSnapshot();
    return refusal;
}

void Store::endSnapshot() {
    if (sqlite3_get_autocommit(database_.get()) == 0) sql::execute(database_.get(), "ROLLBACK");
}

std::optional<Refusal> Store::run(const oql::Query& query,
                                  const std::function<bool(const Row&)>& visit,
                                  std::uint64_t& rows) {
    rows = 0;
    const auto table = sql::describe(database_.get(), query.table.text);
    if (!table) {
        return Refusal{StoreError::NoTable, "no table '" + kvx::excerpt(query.table.text) + "'",
                       query.table.position};
    }
    auto translated = sql::translate(query, *table);
    if (auto* refusal = std::get_if<Refusal>(&translated)) return *refusal;
    const sql::Statement statement = sql::bind(database_.get(), std::get<sql::Command>(translated));
    if (!statement) return failed(database_.get(), "preparing the query");
    int step = sqlite3_step(statement.get());
    for (; step == SQLITE_ROW; step = sqlite3_step(statement.get())) {
        ++rows;
        if (!visit(Row(statement.get()))) return std::nullopt;
    }
    if (step != SQLITE_DONE) return failed(database_.get(), "running the query");
    return std::nullopt;
}

}  // namespace modeld
