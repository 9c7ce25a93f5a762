#pragma once

#include <cstdint>
#include <string>

#include "tools/bus/DatumJson.h"

/// Reading the answers that `DaemonQuestion` gathers. What is missing, such as fields that only
/// newer daemons tell, or is of another type, is 0 or empty.
namespace kvx::bus {

std::uint64_t numberIn(const Json& object, const char* name);
double realIn(const Json& object, const char* name);
std::string textIn(const Json& object, const char* name);
const Json& objectIn(const Json& object, const char* name);
/// An array of rows.
const Json& rowsIn(const Json& object, const char* name);

/// The addresses of the daemon, separated by ", ".
std::string addressesIn(const Json& status);

/// What a session is called: its program and process where they are known, else its name or its
/// address.
std::string whoIs(const Json& session);

}  // namespace kvx::bus
