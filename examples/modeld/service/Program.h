#pragma once

#include "examples/modeld/service/Options.h"

namespace modeld {

/// Loads what is to be loaded, then answers queries until a signal ends the process. Returns the
/// exit status when there is nothing to answer with, or no daemon to answer through.
int run(const Options& options);

}  // namespace modeld
