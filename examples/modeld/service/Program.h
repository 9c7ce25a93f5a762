#pragma once

#include "examples/modeld/service/Options.h"

namespace modeld {

/// Loads the files, then answers queries until a signal. Returns the exit status, early without a
/// usable database or a daemon.
int run(const Options& options);

}  // namespace modeld
