#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "rv/rv.h"

namespace kvx::bus {

using Json = nlohmann::ordered_json;

/// The value of a datum, as `messageAsJson` has it.
Json valueOf(const RvDatum& datum);

/// The name of its type, such as "i32".
std::string typeName(const RvDatum& datum);

/// `json` with the control characters that JSON allows escaped too, so with the same meaning.
std::string printableJson(const std::string& json);

/// A message as one line of JSON: subject, reply (null when there is none), and the datum.
///
/// A datum is {"type", "value"}; the fields of a message are an array of {"name", "type", "value"}
/// in message order, since names may repeat. 64-bit integers are numbers, bytes are hexadecimal,
/// times are ISO 8601 in UTC. Bytes that are no UTF-8 in a text become replacement characters.
std::string messageAsJson(const char* subject, const char* reply, const RvDatum& datum);

/// Adds the same to an object.
void addMessage(Json& object, const char* subject, const char* reply, const RvDatum& datum);

/// A datum as one line of text, as the message library prints it; control characters are spaces.
std::string datumText(const RvDatum& datum);

/// A text as a JSON string, quotes included.
std::string jsonString(const std::string& text);

}  // namespace kvx::bus
