#include "kvx/ChangeRecord.h"

#include <algorithm>
#include <array>

namespace kvx {

namespace {

constexpr std::string_view kChangeField = "@change";
constexpr std::string_view kTableField = "@table";
constexpr std::array<std::string_view, 3> kWords = {"inserted", "changed", "deleted"};

}  // namespace

Record changeRecord(Change change, const Record& row, std::string_view table) {
    Record record{{kChangeField, kWords[static_cast<std::size_t>(change)]}};
    if (!table.empty()) static_cast<void>(record.set(kTableField, table));
    for (const Field& field : row) static_cast<void>(record.set(field.name, field.value));
    return record;
}

std::optional<Change> changeOf(const Record& record) {
    const auto word = record.get<std::string_view>(kChangeField);
    const auto* const found = std::ranges::find(kWords, word.value_or(""));
    if (found == kWords.end()) return std::nullopt;
    return static_cast<Change>(found - kWords.begin());
}

std::string_view tableOf(const Record& record) {
    return record.get<std::string_view>(kTableField).value_or("");
}

Record rowOf(const Record& record) {
    Record row;
    for (const Field& field : record) {
        if (field.name == kChangeField || field.name == kTableField) continue;
        static_cast<void>(row.set(field.name, field.value));
    }
    return row;
}

}  // namespace kvx
