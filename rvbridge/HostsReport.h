#pragma once

#include <string>

#include "rvbridge/Exchange.h"
#include "rvbridge/Ledger.h"
#include "rvbridge/Routes.h"

namespace kvx::bridge {

/// Who is joined, as `kvx hosts` shows it: a JSON array with one object a host, this one first.
/// `isUp`: this one is connected to the engine.
[[nodiscard]] std::string hostsReport(const Exchange& exchange, Receiver& receiver,
                                      const Routes& routes, bool isUp);

}  // namespace kvx::bridge
