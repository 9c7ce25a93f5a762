// Two services that answer one question, or a service that answers it twice, give numbers that
// repeat or disagree about how many there are: none of the rows of such an answer can be trusted to
// be all, or to be there once.

#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_set>

#include "mom/transport/TransportPacket.h"

namespace kvx {

/// Whether the packets of one answer are those numbered 1 to N, each once, in any order.
class PacketNumbers {
  public:
    enum class State { Waiting, Complete, Mixed };

    /// Counts a packet. All have the same count, which says how many there are; in a conversation,
    /// a count of 0 says that it is not known yet. Mixed stays mixed.
    State take(const packet::Header& header, bool isConversation = false) {
        const bool isNew = seen_.insert(header.sequence).second;
        if (count_ == 0) count_ = header.count;
        if (header.sequence > largest_) largest_ = header.sequence;
        isMixed_ = isMixed_ || !isNew || header.sequence < 1 || header.count < 0 ||
                   (header.count == 0 && !isConversation) ||
                   (header.count != 0 && header.count != count_) ||
                   (count_ != 0 && largest_ > count_);
        if (isMixed_) return State::Mixed;
        return count_ != 0 && static_cast<std::int64_t>(seen_.size()) == count_ ? State::Complete
                                                                                : State::Waiting;
    }

    [[nodiscard]] std::size_t packets() const { return seen_.size(); }

  private:
    std::int64_t count_ = 0;    // 0 until it is known
    std::int64_t largest_ = 0;  // number so far
    bool isMixed_ = false;
    std::unordered_set<std::int64_t> seen_;
};

}  // namespace kvx
