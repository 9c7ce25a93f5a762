#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvx::rvd {

/// Why a copy was dropped from an open session's queue, or why a session was ended.
enum class LossCause : std::uint8_t {
    SlowReader = 1,  ///< the session's own queue was full
    Memory = 2,      ///< all queues together were full
    TooLarge = 4,    ///< the message is larger than the session's whole queue
    Patterns = 8,    ///< the session's patterns cost a message too much
    Listens = 16     ///< it has made more listens than one session may
};

inline constexpr const char* kTooManyListens = "more than 262144 listens";

/// A session's loss that was not announced yet. Without messages: the end of the session.
struct Loss {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::uint8_t causes = 0;  ///< `LossCause` bits

    [[nodiscard]] bool any() const { return causes != 0; }
    void add(std::uint64_t count, std::uint64_t size, LossCause cause) {
        messages += count;
        bytes += size;
        causes |= static_cast<std::uint8_t>(cause);
    }
};

/// "slow reader", "daemon memory", "message too large", "patterns take more than 1024 steps" and
/// `kTooManyListens`, joined by ", ".
[[nodiscard]] std::string causeText(std::uint8_t causes);

/// The data message that announces a loss: on "_RV.WARN.SYSTEM.DATALOSS", its data a nested message
/// of the advisory fields, "lost" (messages, unsigned, 4 bytes), "bytes" (unsigned, 8 bytes) and
/// "cause" (text). Empty when it cannot be built.
[[nodiscard]] std::vector<std::uint8_t> buildDataLoss(const Loss& loss);

}  // namespace kvx::rvd
