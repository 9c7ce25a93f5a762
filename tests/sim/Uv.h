#pragma once

namespace kvx::sim {

/// What the simulation does to the daemon's event loop (Uv.cpp).
void raiseInDaemon(int signal);
/// The loop returns at once, as if the process had been killed: its sockets are reset.
void killDaemonLoop();
/// The `n`th allocation of the daemon's next reads fails.
void failDaemonRead(long n);

}  // namespace kvx::sim
