#pragma once

#include "rva/HttpPages.h"

namespace kvx::rva {

/// Adds the console: its page at `/`, and what that loads below `/console/`. The files of
/// rva/console/ are part of the program.
void addConsole(HttpPages& pages);

}  // namespace kvx::rva
