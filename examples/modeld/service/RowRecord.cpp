#include "examples/modeld/service/RowRecord.h"

#include <memory>
#include <utility>

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
    if (record.RRAddOrSetValue(name, value.get()) == kvx::kOk) static_cast<void>(value.release());
}

void addColumns(CVekBaseRecord& record, const Row& row) {
    for (int i = 0; i < row.size(); ++i) {
        if (row.kind(i) != ValueKind::Null) addField(record, row.name(i), atomOf(row, i));
    }
}

const kvx::Record& RowRecord::of(const Row& row) {
    std::vector<bool> fills(static_cast<std::size_t>(row.size()));
    for (int i = 0; i < row.size(); ++i) {
        fills[static_cast<std::size_t>(i)] = row.kind(i) != ValueKind::Null;
    }
    // A field cannot be removed: a row with other columns begins a new record.
    if (fields_ == nullptr || fills != filled_) {
        filled_ = std::move(fills);
        auto fields = std::make_unique<CVekBaseRecord>();
        fields_ = fields.get();
        record_ = kvx::Record(std::move(fields));
    }
    addColumns(*fields_, row);
    return record_;
}

}  // namespace modeld
