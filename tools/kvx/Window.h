#pragma once

#include <cstdint>

namespace kvx::tool {

/// How long nothing may move before a wait is given up.
inline constexpr unsigned long kStallMs = 10000;

/// How much may be on its way at one time: 500 messages, and not more than 2 MiB of them, but
/// always one. Both stay below every limit of the link and of a daemon that is not set up for less.
///
/// The payload's bytes stand for the message's.
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
