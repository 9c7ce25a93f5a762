#pragma once

#include <cstdint>

namespace kvx::tool {

/// How long a wait without progress lasts.
inline constexpr unsigned long kStallMs = 10000;

/// The messages in flight: at most 500, and at most 2 MiB of them, but always one. Both are below
/// the limits of the link and the default limits of a daemon.
///
/// Message sizes are estimated by the payload.
class Window {
  public:
    explicit constexpr Window(std::uint64_t bytesPerMessage)
        : messages_(inBytes(bytesPerMessage)) {}

    /// Messages that fit, at least one.
    [[nodiscard]] constexpr std::uint64_t messages() const { return messages_; }

  private:
    static constexpr std::uint64_t kMostMessages = 500;
    static constexpr std::uint64_t kMostBytes = 2U << 20U;

    static constexpr std::uint64_t inBytes(std::uint64_t bytesPerMessage) {
        if (bytesPerMessage * kMostMessages <= kMostBytes) return kMostMessages;
        return bytesPerMessage >= kMostBytes ? 1 : kMostBytes / bytesPerMessage;
    }

    std::uint64_t messages_;
};

}  // namespace kvx::tool
