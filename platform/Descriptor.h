#pragma once

#include <utility>

#include "platform/Export.h"

namespace kvx::platform {

/// Owns a descriptor of the system, or none. Any thread, one thread at a time.
class KVX_API Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) noexcept : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = other.release();
        }
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    /// -1 for none.
    [[nodiscard]] int get() const noexcept { return descriptor_; }
    [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }
    /// Closes it.
    void reset() noexcept;

  private:
    int descriptor_ = -1;
};

}  // namespace kvx::platform
