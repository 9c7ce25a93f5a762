#pragma once

#include <string>
#include <vector>

#include "tools/bus/DaemonAnswer.h"
#include "tools/kvx/Table.h"

/// What the daemon tells of itself, for people.
namespace kvx::tool {

using bus::Json;

using bus::numberIn;
using bus::objectIn;
using bus::realIn;
using bus::rowsIn;
using bus::textIn;
using bus::whoIs;

/// The lines of `kvx status`.
std::vector<std::string> statusLines(const Json& status);

/// Service and network, such as "7500" or "7500;eth0".
std::string spaceText(const Json& row);
/// What was lost, by cause, such as "12 queue full"; "-" when nothing was.
std::string lossText(const Json& session);

/// A span of nanoseconds: "850 ns", "12.3 us", "4.5 ms", "1.2 s".
std::string delayText(std::uint64_t nanoseconds);

Table sessionsTable(const Json& sessions);
Table subjectsTable(const Json& subjects, bool withShapes);

}  // namespace kvx::tool
