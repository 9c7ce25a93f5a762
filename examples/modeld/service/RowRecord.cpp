#include "examples/modeld/service/RowRecord.h"

#include <string>

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

}  // namespace modeld
