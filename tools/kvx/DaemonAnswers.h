#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/bus/DaemonQuestion.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

/// One question to the daemon.
struct AskedOfDaemon {
    const char* about = bus::kStatusSubject;
    std::string subject = {};  ///< empty: none
    std::uint64_t limit = 0;   ///< 0: none
    bool shapes = false;
};

/// Asks the daemon these questions, one after the other, and calls `show` with all answers.
/// Returns the exit status of `show`, or 1 with a line on standard error. With `isSubject` false
/// for a subject, returns 2 likewise.
int askDaemon(const DaemonOptions& options, const std::vector<AskedOfDaemon>& questions,
              const std::function<int(const std::vector<bus::Json>& answers)>& show);

/// Prints rows as JSON, one a line.
void printRows(const bus::Json& rows);

}  // namespace kvx::tool
