#pragma once

#include <cstdint>
#include <string_view>

#include "rv/message/SubjectView.h"

namespace kvx::rvd {

/// The subjects of the daemon itself: two elements, the first of them "_RVD". A message that a
/// client sends on one of them is not delivered to anybody.
enum class DaemonSubject : std::uint8_t {
    None,      ///< not one of them
    Interest,  ///< who listens to it follows the interest of its space
    Lost,      ///< followers report on it what was lost between hosts
    Status,    ///< requests: how the daemon itself is
    Sessions,  ///< requests: who is on it
    Subjects,  ///< requests: what flows
    Trace,     ///< requests: who would get a message
    Latency,   ///< requests: how long messages are in the daemon
    Any        ///< a pattern that covers them
};

[[nodiscard]] DaemonSubject daemonSubjectOf(SubjectView subject);

}  // namespace kvx::rvd
