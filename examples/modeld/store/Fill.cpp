// Filling a table reads its files twice, once for the column types and once to insert, so memory
// does not grow with the files.

#include "examples/modeld/store/Fill.h"

#include <set>
#include <vector>

#include "examples/modeld/store/CsvReader.h"
#include "examples/modeld/store/Sql.h"
#include "platform/Text.h"

namespace modeld {

namespace {

constexpr std::uint64_t kRowsPerProgress = 1000;

Refusal badSource(const std::string& file, const std::string& what) {
    return {StoreError::BadSource, file + ": " + what, 0};
}

struct Column {
    std::string name;
    bool integers = true;
    bool empty = true;
};

// Empty for a heading that is not UTF-8 or is empty.
std::string columnName(std::string_view heading) {
    std::string name;
    for (std::size_t length = 0; !heading.empty(); heading.remove_prefix(length)) {
        length = kvx::characterLength(heading);
        if (length == 0) return {};
        const char c = heading.front();
        if (length > 1 && !kvx::startsWithControl(heading)) {
            name += heading.substr(0, length);
        } else if (c >= 'A' && c <= 'Z') {
            name.push_back(static_cast<char>(c - 'A' + 'a'));
        } else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9' && !name.empty())) {
            name.push_back(c);
        } else {
            name.push_back('_');
        }
    }
    return name;
}

// Makes the column names from the headings.
std::optional<Refusal> nameColumns(const std::string& file, const std::vector<std::string>& heading,
                                   std::vector<Column>& columns) {
    std::set<std::string> names;
    for (std::size_t i = 0; i < heading.size(); ++i) {
        const std::string& name = columns[i].name = columnName(heading[i]);
        std::string problem;
        if (heading[i].empty()) {
            problem = "has no name";
        } else if (name.empty()) {
            problem = "has a name that is not UTF-8";
        } else if (!names.insert(name).second) {
            problem = "has the name of another one, '" + kvx::excerpt(name) + "'";
        }
        if (!problem.empty()) {
            return badSource(file, "column " + std::to_string(i + 1) + " " + problem);
        }
    }
    return std::nullopt;
}

// Whether `text` is an integer that survives conversion: no leading zero, at most 18 digits.
bool isPlainInteger(const std::string& text) {
    const std::size_t start = text.starts_with('-') ? 1 : 0;
    const std::size_t digits = text.size() - start;
    if (digits == 0 || digits > 18) return false;
    if (text[start] == '0' && (digits > 1 || start == 1)) return false;
    return text.find_first_not_of("0123456789", start) == std::string::npos;
}

// The refusal of a failed reading, if it failed.
std::optional<Refusal> broken(const std::string& file, const CsvReader& reader,
                              CsvReader::Result result) {
    if (result == CsvReader::Result::Unreadable) return badSource(file, reader.problem());
    if (result != CsvReader::Result::Malformed) return std::nullopt;
    return badSource(file, "line " + std::to_string(reader.line()) +
                               ": a quote is not closed, or the record is too long");
}

// Calls `visit`, which may refuse, for every record below the heading of every file.
template <class Visit>
std::optional<Refusal> eachRecord(const Source& source, std::vector<std::string>& heading,
                                  Visit&& visit) {
    std::vector<std::string> fields;
    for (const auto& file : source.files) {
        CsvReader reader(file);
        auto result = reader.next(fields);
        if (result == CsvReader::Result::End) return badSource(file, "is empty");
        if (auto refusal = broken(file, reader, result)) return refusal;
        if (heading.empty()) heading = fields;
        if (fields != heading) return badSource(file, "has other columns than the first file");
        result = reader.next(fields);
        for (; result == CsvReader::Result::Record; result = reader.next(fields)) {
            if (fields.size() == 1 && fields[0].empty()) continue;
            if (fields.size() != heading.size()) {
                return badSource(file, "line " + std::to_string(reader.line()) + " has " +
                                           std::to_string(fields.size()) + " fields where " +
                                           std::to_string(heading.size()) + " are expected");
            }
            if (auto refusal = visit(fields)) return refusal;
        }
        if (auto refusal = broken(file, reader, result)) return refusal;
    }
    return std::nullopt;
}

void tell(const Progress& progress, std::uint64_t rows, std::uint64_t all) {
    if (rows % kRowsPerProgress == 0 && progress) progress(rows, all);
}

std::optional<Refusal> learnColumns(const Source& source, std::vector<Column>& columns,
                                    std::uint64_t& rows, const Progress& progress) {
    std::vector<std::string> heading;
    auto refusal = eachRecord(source, heading, [&](const auto& fields) -> std::optional<Refusal> {
        columns.resize(fields.size());
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (fields[i].empty()) continue;
            columns[i].empty = false;
            columns[i].integers = columns[i].integers && isPlainInteger(fields[i]);
        }
        tell(progress, ++rows, 0);
        return std::nullopt;
    });
    if (refusal) return refusal;
    columns.resize(heading.size());
    return nameColumns(source.files.front(), heading, columns);
}

Refusal noKey(const std::string& key) {
    return {StoreError::NoColumn, "no column '" + key + "' to index", 0};
}

bool hasKey(const std::vector<Column>& columns, const std::string& key) {
    sql::Table table;
    for (const Column& column : columns) table.columns.emplace_back(column.name, ValueKind::Text);
    return key.empty() || table.find(key) != nullptr;
}

std::string createText(const std::string& table, const std::vector<Column>& columns) {
    std::string text = "CREATE TABLE " + table + " (";
    for (const auto& column : columns) {
        if (&column != &columns.front()) text += ", ";
        text += sql::quoted(column.name);
        text += column.integers && !column.empty ? " INTEGER" : " TEXT";
    }
    return text + ")";
}

std::string insertText(const std::string& table, std::size_t columns) {
    std::string text = "INSERT INTO " + table + " VALUES (";
    for (std::size_t i = 0; i < columns; ++i) text += i == 0 ? "?" : ", ?";
    return text + ")";
}

std::optional<Refusal> insertRows(sqlite3* database, const Source& source, const std::string& table,
                                  std::size_t columns, std::uint64_t all,
                                  const Progress& progress) {
    const sql::Statement insert = sql::prepare(database, insertText(table, columns));
    if (!insert) return failed(database, "preparing the insertion");
    std::uint64_t rows = 0;
    std::vector<std::string> heading;
    auto refusal = eachRecord(source, heading, [&](const auto& fields) -> std::optional<Refusal> {
        for (std::size_t i = 0; i < fields.size(); ++i) {
            const int index = static_cast<int>(i) + 1;
            if (fields[i].empty()) {
                sqlite3_bind_null(insert.get(), index);
            } else {
                sqlite3_bind_text64(insert.get(), index, fields[i].data(), fields[i].size(),
                                    SQLITE_STATIC, SQLITE_UTF8);
            }
        }
        if (sqlite3_step(insert.get()) != SQLITE_DONE) return failed(database, "inserting a row");
        sqlite3_reset(insert.get());
        tell(progress, ++rows, all);
        return std::nullopt;
    });
    if (!refusal && progress) progress(rows, rows);
    return refusal;
}

}  // namespace

Refusal failed(sqlite3* database, const std::string& doing) {
    const bool busy = sqlite3_errcode(database) == SQLITE_BUSY;
    return {busy ? StoreError::Busy : StoreError::Failed, doing + ": " + sqlite3_errmsg(database),
            0};
}

std::optional<Refusal> fillTable(sqlite3* database, const Source& source, const std::string& table,
                                 const Progress& progress) {
    std::vector<Column> columns;
    std::uint64_t rows = 0;
    if (auto refusal = learnColumns(source, columns, rows, progress)) return refusal;
    if (!hasKey(columns, source.key)) return noKey(source.key);
    if (!sql::execute(database, "DROP TABLE IF EXISTS " + table) ||
        !sql::execute(database, createText(table, columns))) {
        return failed(database, "creating the table");
    }
    return insertRows(database, source, table, columns.size(), rows, progress);
}

std::optional<Refusal> indexKey(sqlite3* database, const Source& source) {
    if (source.key.empty()) return std::nullopt;
    const auto table = sql::describe(database, source.table);
    const auto* key = table ? table->find(source.key) : nullptr;
    if (key == nullptr) {
        return noKey(source.key);
    }
    const std::string name = source.table + "_key";
    const sql::Statement indexed =
        sql::bind(database, {"SELECT name FROM pragma_index_info(?)", {oql::Literal(name)}});
    if (indexed && sqlite3_step(indexed.get()) == SQLITE_ROW &&
        Row(indexed.get()).text(0) == key->first) {
        return std::nullopt;
    }
    if (!sql::execute(database, "DROP INDEX IF EXISTS main." + sql::quoted(name)) ||
        !sql::execute(database, "CREATE INDEX main." + sql::quoted(name) + " ON " +
                                    sql::quoted(source.table) + " (" + sql::quoted(key->first) +
                                    ")")) {
        return failed(database, "indexing the table");
    }
    return std::nullopt;
}

}  // namespace modeld
