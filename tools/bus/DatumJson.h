#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "rv/rv.h"

namespace kvx::bus {

using Json = nlohmann::ordered_json;

/// The name of its type, such as "i32".
std::string typeName(const RvDatum& datum);

/// `json` with the control characters that JSON allows escaped too, so with the same meaning.
std::string printableJson(const std::string& json);

/// A message as one line of JSON, as docs/http.md defines it, for standard output.
std::string messageAsJson(const char* subject, const char* reply, const RvDatum& datum);

/// A datum as one line of text, as the message library prints it; control characters are spaces.
std::string datumText(const RvDatum& datum);

/// A text as a JSON string, quotes included.
std::string jsonString(const std::string& text);

}  // namespace kvx::bus
