#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "rv/error/rvReasons.h"
#include "rv/message/SubjectView.h"
#include "rv/wire/Limits.h"
#include "rvd/State.h"

namespace kvx::rvd {

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

/// The texts of the `LossCause` bits, joined by ", ".
[[nodiscard]] std::string causeText(std::uint8_t causes);

/// The subjects of lost messages, as many as fit into one notice.
class DroppedSubjects {
  public:
    /// Has no effect for a message that has lost its bytes, and without memory or room.
    void add(wire::Bytes message) noexcept;
    [[nodiscard]] bool empty() const { return counts_.empty(); }
    void clear() {
        counts_.clear();
        bytes_ = 0;
    }
    /// A nested message: for each subject "sub" (encoded) and "lost" (messages, unsigned, 8 bytes).
    [[nodiscard]] std::vector<std::uint8_t> build() const;

    void save(StateWriter& state) const;
    void restore(StateReader& state);

    static constexpr std::size_t kMostBytes = 15'000;  ///< of the nested message

  private:
    std::map<std::string, std::uint64_t, std::less<>> counts_;  // by encoded subject
    std::size_t bytes_ = 0;
};

/// The data message that announces a loss: on "_RV.WARN.SYSTEM.DATALOSS", its data a nested message
/// of the advisory fields, "lost" (messages, unsigned, 4 bytes), "bytes" (unsigned, 8 bytes),
/// "cause" (text) and, when `dropped` has any, "dropped" (see there). Empty when it cannot be
/// built.
[[nodiscard]] std::vector<std::uint8_t> buildDataLoss(const Loss& loss,
                                                      const DroppedSubjects& dropped = {});

/// What a follower says on "_RVD.LOST": so many messages on that subject were lost between hosts.
struct LossReport {
    SubjectView subject;  ///< of the message's bytes
    std::uint64_t lost;   ///< not 0
};
/// Nothing when the data message's "data" has no sound "sub" and "lost".
[[nodiscard]] std::optional<LossReport> readLossReport(wire::Bytes message);

}  // namespace kvx::rvd
