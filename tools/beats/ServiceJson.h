#pragma once

#include <string>

#include "tools/beats/BeatTable.h"

namespace kvx::beats {

/// "primary" for a process that is or has been primary, else "backup".
[[nodiscard]] const char* roleOf(const Beat& beat);

/// A service as one JSON object: service, domain, host, pid, role, the seconds since its last and
/// its first beat, the beats heard, missed in all and overdue now. Bytes that are no UTF-8 become
/// replacement characters.
[[nodiscard]] std::string serviceAsJson(const Service& service, Milliseconds now);

}  // namespace kvx::beats
