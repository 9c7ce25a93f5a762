#pragma once

#include "rva/Options.h"

namespace kvx::rva {

/// Joins the bus and serves until SIGTERM or SIGINT. Says "rva ready on http://..." on standard
/// output once it does. Returns the exit status, having told on standard error what went wrong.
[[nodiscard]] int run(const Options& options);

}  // namespace kvx::rva
