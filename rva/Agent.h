#pragma once

#include "rva/Options.h"

namespace kvx::rva {

/// Joins the bus and serves until SIGTERM or SIGINT. Prints "rva ready on http://..." when it
/// serves. Returns the exit status; errors are printed on standard error.
[[nodiscard]] int run(const Options& options);

}  // namespace kvx::rva
