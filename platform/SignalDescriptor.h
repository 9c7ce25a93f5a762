#pragma once

#include <span>

#include "platform/Descriptor.h"

namespace kvx::platform {

/// Signals that an event loop reads, as it reads sockets: no handler interrupts the program. They
/// are blocked from the construction on, in the calling thread and in threads that it starts later,
/// and stay so afterwards. One thread.
class KVX_API SignalDescriptor {
  public:
    explicit SignalDescriptor(std::span<const int> signals) noexcept;

    /// Readable while one of the signals is pending; -1 when the system had no descriptor.
    [[nodiscard]] int descriptor() const noexcept { return descriptor_.get(); }
    /// Takes a pending one; 0 for none.
    [[nodiscard]] int next() const noexcept;

  private:
    Descriptor descriptor_;
};

}  // namespace kvx::platform
