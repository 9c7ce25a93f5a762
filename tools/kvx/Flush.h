#pragma once

#include "tools/bus/Client.h"

namespace kvx::tool {

/// Waits until everything that was sent is written, as long as there is progress. False, with a
/// line on standard error, when it is not.
bool flush(bus::Client& client);

}  // namespace kvx::tool
