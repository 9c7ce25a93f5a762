#pragma once

#include <string>
#include <vector>

#include "tools/bus/DatumJson.h"
#include "tools/kvx/Table.h"

/// What the daemon tells of itself, for people. Missing fields, such as those that only newer
/// daemons tell, are 0 or empty.
namespace kvx::tool {

using bus::Json;

/// Fields of an object; what is missing or of another type is 0, or empty.
std::uint64_t numberIn(const Json& object, const char* name);
double realIn(const Json& object, const char* name);
std::string textIn(const Json& object, const char* name);
/// An array of rows; empty when it is missing.
const Json& rowsIn(const Json& object, const char* name);

/// The lines of `kvx status`.
std::vector<std::string> statusLines(const Json& status);

/// What a session is called: its name with what is known of its process, or its address.
std::string whoIs(const Json& session);
/// Service and network, such as "7500" or "7500;eth0".
std::string spaceText(const Json& row);
/// What was lost, by cause, such as "12 queue full"; "-" when nothing was.
std::string lossText(const Json& session);

/// A span of nanoseconds: "850 ns", "12.3 us", "4.5 ms", "1.2 s".
std::string delayText(std::uint64_t nanoseconds);

Table sessionsTable(const Json& sessions);
Table subjectsTable(const Json& subjects, bool withShapes);

}  // namespace kvx::tool
