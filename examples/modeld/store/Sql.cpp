// Compiles query trees to prepared statements.
//
// One pass over the tree writes the statement's text and collects the values in the same order. A
// name is looked up in the schema and written in its spelling, quoted; a value becomes a "?" and is
// bound. So the text holds nothing of a query but names that the schema has. Comparisons are
// checked against the kind of the column: text with text, numbers with numbers, `like` on text
// only, null anywhere. The first error, with its position, ends the translation.

#include "examples/modeld/store/Sql.h"

#include <type_traits>

#include "platform/Text.h"

namespace modeld::sql {

namespace {

ValueKind kindOf(const oql::Literal& value) {
    static constexpr ValueKind kKinds[] = {ValueKind::Null, ValueKind::Integer, ValueKind::Real,
                                           ValueKind::Text};
    return kKinds[value.index()];
}

const char* word(ValueKind kind) {
    static constexpr const char* kWords[] = {"null", "integer", "number", "text"};
    return kWords[static_cast<int>(kind)];
}

const char* symbol(oql::Comparison operation) {
    static constexpr const char* kSymbols[] = {
        " = ", " <> ", " < ", " <= ", " > ", " >= ", " LIKE "};
    return kSymbols[static_cast<int>(operation)];
}

bool comparable(ValueKind column, ValueKind value, oql::Comparison operation) {
    if (value == ValueKind::Null) return true;
    const bool text = column == ValueKind::Text;
    if (operation == oql::Comparison::Like && !text) return false;
    return text == (value == ValueKind::Text);
}

// Translates one query against one table, up to the first error.
class Translation {
  public:
    Translation(const oql::Query& query, const Table& table) : query_(query), table_(table) {}

    std::variant<Command, Refusal> run() {
        selectFields();
        command_.text += " FROM " + quoted(table_.name);
        if (query_.where) {
            command_.text += " WHERE ";
            condition(*query_.where);
        }
        orderBy();
        if (query_.limit) {
            command_.text += " LIMIT ?";
            command_.values.emplace_back(*query_.limit);
        }
        if (refusal_) return *refusal_;
        return std::move(command_);
    }

  private:
    void selectFields() {
        command_.text = "SELECT ";
        if (query_.fields.empty()) command_.text += "*";
        for (std::size_t i = 0; i < query_.fields.size(); ++i) {
            if (i != 0) command_.text += ", ";
            field(query_.fields[i]);
        }
    }

    void orderBy() {
        for (std::size_t i = 0; i < query_.order.size(); ++i) {
            command_.text += i == 0 ? " ORDER BY " : ", ";
            field(query_.order[i].field);
            if (query_.order[i].descending) command_.text += " DESC";
        }
    }

    // The column's kind; Null, with the refusal stored, when the table has no such column.
    ValueKind field(const oql::Name& name) {
        if (const auto* column = table_.find(name.text)) {
            command_.text += quoted(column->first);
            return column->second;
        }
        refuse(StoreError::NoColumn,
               "no column '" + kvx::excerpt(name.text) + "' in '" + table_.name + "'",
               name.position);
        return ValueKind::Null;
    }

    void condition(const oql::Condition& condition) {
        std::visit([this](const auto& node) { write(node); }, condition.node);
    }

    void write(const oql::Compare& compare) {
        const ValueKind column = field(compare.field);
        if (refusal_) return;
        const ValueKind value = kindOf(compare.value);
        if (!comparable(column, value, compare.operation)) {
            refuse(StoreError::TypeMismatch,
                   "column '" + kvx::excerpt(compare.field.text) + "' holds " + word(column) +
                       ", which cannot be compared with " + word(value),
                   compare.field.position);
        } else if (value == ValueKind::Null) {
            command_.text +=
                compare.operation == oql::Comparison::Equal ? " IS NULL" : " IS NOT NULL";
        } else {
            command_.text += symbol(compare.operation);
            command_.text += "?";
            command_.values.push_back(compare.value);
        }
    }

    void write(const oql::Not& node) {
        command_.text += "NOT (";
        condition(*node.operand);
        command_.text += ")";
    }

    void write(const oql::All& node) { joined(node.operands, " AND "); }
    void write(const oql::Any& node) { joined(node.operands, " OR "); }

    void joined(const std::vector<oql::ConditionPtr>& operands, const char* between) {
        command_.text += "(";
        for (std::size_t i = 0; i < operands.size() && !refusal_; ++i) {
            if (i != 0) command_.text += between;
            condition(*operands[i]);
        }
        command_.text += ")";
    }

    void refuse(StoreError error, std::string message, oql::Position position) {
        if (!refusal_) refusal_ = Refusal{error, std::move(message), position};
    }

    const oql::Query& query_;
    const Table& table_;
    Command command_;
    std::optional<Refusal> refusal_;
};

int bindValue(sqlite3_stmt* statement, int index, const oql::Literal& value) {
    return std::visit(
        [&](const auto& v) {
            using Value = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<Value, std::int64_t>) {
                return sqlite3_bind_int64(statement, index, v);
            } else if constexpr (std::is_same_v<Value, double>) {
                return sqlite3_bind_double(statement, index, v);
            } else if constexpr (std::is_same_v<Value, std::string>) {
                return sqlite3_bind_text64(statement, index, v.data(), v.size(), SQLITE_TRANSIENT,
                                           SQLITE_UTF8);
            } else {
                return sqlite3_bind_null(statement, index);
            }
        },
        value);
}

}  // namespace

Statement prepare(sqlite3* database, const std::string& text) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, text.c_str(), -1, &statement, nullptr);
    return Statement(statement);
}

bool execute(sqlite3* database, const std::string& text) {
    return sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string quoted(const std::string& name) {
    std::string result = "\"";
    for (const char c : name) {
        if (c == '"') result.push_back('"');
        result.push_back(c);
    }
    return result + '"';
}

bool isUsersTable(const std::string& name) {
    const std::string plain = oql::lowered(name);
    return !plain.empty() && plain.find('\0') == std::string::npos &&
           !plain.starts_with("sqlite_") && !plain.starts_with(kOwnTables);
}

const std::pair<std::string, ValueKind>* Table::find(std::string_view column) const {
    const std::string wanted = oql::lowered(column);
    for (const auto& candidate : columns) {
        if (oql::lowered(candidate.first) == wanted) return &candidate;
    }
    return nullptr;
}

std::optional<Table> describe(sqlite3* database, const std::string& name, const char* schema) {
    if (!isUsersTable(name)) return std::nullopt;
    const Statement statement =
        prepare(database, "SELECT name, type FROM pragma_table_info(?1, ?2) ORDER BY cid");
    if (!statement) return std::nullopt;
    bindValue(statement.get(), 1, name);
    bindValue(statement.get(), 2, std::string(schema));
    Table table;
    table.name = name;
    while (sqlite3_step(statement.get()) == SQLITE_ROW) {
        const Row row(statement.get());
        const std::string type(row.text(1));
        const ValueKind kind = type == "INTEGER" ? ValueKind::Integer
                               : type == "REAL"  ? ValueKind::Real
                                                 : ValueKind::Text;
        table.columns.emplace_back(row.text(0), kind);
    }
    if (table.columns.empty()) return std::nullopt;
    return table;
}

std::variant<Command, Refusal> translate(const oql::Query& query, const Table& table) {
    return Translation(query, table).run();
}

Statement bind(sqlite3* database, const Command& command) {
    Statement statement = prepare(database, command.text);
    for (std::size_t i = 0; statement && i < command.values.size(); ++i) {
        if (bindValue(statement.get(), static_cast<int>(i) + 1, command.values[i]) != SQLITE_OK) {
            return nullptr;
        }
    }
    return statement;
}

}  // namespace modeld::sql
