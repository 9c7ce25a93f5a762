#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kvx::bus {

/// The columns that a query names between "select" and "from", in its order and spelling; none for
/// "*" or another form. A name may be in double quotes, backquotes or brackets.
///
/// Rows may lack columns, and an answer may have no rows, so only the query has all the columns.
std::vector<std::string> selectedColumns(std::string_view query);

/// `text` as a field of comma-separated values (RFC 4180).
std::string csvField(const std::string& text);

/// Whether two names are equal except for the case of ASCII letters.
bool equalIgnoringCase(std::string_view one, std::string_view other);

}  // namespace kvx::bus
