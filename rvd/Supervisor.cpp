#include "rvd/Supervisor.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace kvx::rvd {
namespace {

constexpr std::uint64_t kHeardUs = 1'000'000;

}  // namespace

void tellReady() {
    (void)sd_notify(0, "READY=1");
}

// Else it might learn first that this process has ended, and start another one.
void tellServing(unsigned long pid) {
    if (sd_notifyf(0, "MAINPID=%lu", pid) > 0) (void)sd_notify_barrier(0, kHeardUs);
}

}  // namespace kvx::rvd
