#pragma once

#include <optional>

#include "platform/Socket.h"

namespace kvx::session {

/// Where a daemon text leads.
struct DaemonAddress {
    bool local = true;  ///< no host was named: the daemon of this machine, which may be started
    platform::Endpoint endpoint{platform::kLoopbackAddress, 0};
};

/// Reads "tcp:[host:]port" and resolves the host, which may block. Nothing when the text has
/// another form or the host is unknown. A port that is no number is 0.
[[nodiscard]] std::optional<DaemonAddress> parseDaemon(const char* text);

}  // namespace kvx::session
