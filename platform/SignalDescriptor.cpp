#include "platform/SignalDescriptor.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/SignalMask.h"
#include "platform/Signals.h"

namespace kvx::platform {

SignalDescriptor::SignalDescriptor(std::span<const int> signals) noexcept {
    blockSignals(signals);
    const sigset_t mask = maskOf(signals);
    descriptor_ = Descriptor(::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC));
}

int SignalDescriptor::next() const noexcept {
    signalfd_siginfo taken{};
    const ssize_t size = ::read(descriptor_.get(), &taken, sizeof taken);
    return size == sizeof taken ? static_cast<int>(taken.ssi_signo) : 0;
}

}  // namespace kvx::platform
