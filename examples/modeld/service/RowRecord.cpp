#include "examples/modeld/service/RowRecord.h"

#include <memory>
#include <string>
#include <string_view>

namespace modeld {

namespace {

std::unique_ptr<CVekAtom> atomOf(const Row& row, int column) {
    if (row.kind(column) == ValueKind::Integer) {
        return std::make_unique<CVekAtom>(static_cast<long long>(row.integer(column)));
    }
    return std::make_unique<CVekAtom>(row.text(column));
}

}  // namespace

void addField(CVekBaseRecord& record, const char* name, std::unique_ptr<CVekAtom> value) {
    if (record.RRAddOrSetValue(name, value.get()) == 1) static_cast<void>(value.release());
}

void addColumns(CVekBaseRecord& record, const Row& row) {
    for (int i = 0; i < row.size(); ++i) {
        if (row.kind(i) != ValueKind::Null) addField(record, row.name(i), atomOf(row, i));
    }
}

void RowBlock::add(const Row& row) {
    if (columns_.empty()) {
        for (int i = 0; i < row.size(); ++i) columns_.emplace_back(row.name(i));
    }
    for (int i = 0; i < row.size(); ++i) {
        Value value{row.kind(i), 0};
        if (value.kind == ValueKind::Integer) {
            value.number = row.integer(i);
        } else if (value.kind != ValueKind::Null) {
            const std::string_view text = row.text(i);
            value.number = static_cast<std::int64_t>(text.size());
            texts_ += text;
        }
        values_.push_back(value);
    }
}

// Rows with values in the same columns share one record, whose values are replaced, so that names
// and fields are built once. A row with other columns begins a new record, since a field cannot be
// removed.
void RowBlock::encode(CVekTransport& transport) const {
    const std::string_view texts = texts_;
    std::size_t text = 0;
    CVekBaseRecord record;
    std::vector<bool> filled(columns_.size());
    for (std::size_t first = 0; first < values_.size(); first += columns_.size()) {
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            const bool fills = values_[first + i].kind != ValueKind::Null;
            if (fills != filled[i]) record = CVekBaseRecord();
            filled[i] = fills;
        }
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            const Value& value = values_[first + i];
            if (value.kind == ValueKind::Null) continue;
            if (value.kind == ValueKind::Integer) {
                addField(record, columns_[i].c_str(),
                         std::make_unique<CVekAtom>(static_cast<long long>(value.number)));
                continue;
            }
            const auto length = static_cast<std::size_t>(value.number);
            addField(record, columns_[i].c_str(),
                     std::make_unique<CVekAtom>(texts.substr(text, length)));
            text += length;
        }
        transport.RTAddRecord(&record);
    }
}

}  // namespace modeld
