#pragma once

#include <optional>
#include <string_view>

#include "kvx/Record.h"
#include "platform/Export.h"

namespace kvx {

enum class Change { Inserted, Changed, Deleted };

/// The record that tells of a change: "@change" with the word for it ("inserted", "changed",
/// "deleted"), "@table" unless `table` is empty, and then the fields of `row`: all of them as they
/// are now, of a deleted row those that it had.
KVX_API Record changeRecord(Change change, const Record& row, std::string_view table = {});

/// What a record tells; nothing when it is not of that form.
KVX_API std::optional<Change> changeOf(const Record& record);
/// The table in it; empty when it names none. Valid until the record changes.
KVX_API std::string_view tableOf(const Record& record);
/// The row in it.
KVX_API Record rowOf(const Record& record);

}  // namespace kvx
