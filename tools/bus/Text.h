#pragma once

#include <cstddef>
#include <string>

namespace kvx::bus {

/// `text` with its control characters as spaces, those of eight bits (U+0080 to U+009F, encoded or
/// as single bytes) included: what came over the bus or the command line must not steer a terminal
/// or break a line of a log.
std::string printable(std::string text);

/// The text of a JSON document in which the control characters that JSON lets through are escaped,
/// too. The meaning stays the same.
std::string printableJson(const std::string& json);

/// The place of the character of UTF-8 that the byte at `i`, or the end, belongs to.
std::size_t characterBegin(const std::string& text, std::size_t i);

/// `text`, or its beginning and its end with "..." between them when it has more than `most` bytes
/// (at least 8). Characters of UTF-8 stay whole.
std::string shortened(const std::string& text, std::size_t most);

}  // namespace kvx::bus
