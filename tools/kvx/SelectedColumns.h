#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kvx::tool {

/// The columns that a query names between "select" and "from", in its order and spelling; none when
/// it asks for "*", or is of another form. A name may stand in double quotes, backquotes or
/// brackets.
///
/// A row need not hold a field for every column, and an answer may have no rows at all, so the
/// question alone knows what was asked for.
std::vector<std::string> selectedColumns(std::string_view query);

}  // namespace kvx::tool
