#pragma once

namespace kvx::rvd {

/// Tells whoever supervises this process as a service that it serves. Does nothing without one.
void tellReady();
/// Tells it that this process is the service from now on, and waits until it knows.
void tellServing(unsigned long pid);

}  // namespace kvx::rvd
