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

    /// Counts a packet. The first one says how many there are. Mixed stays mixed.
    State take(const packet::Header& header) {
        if (seen_.empty()) count_ = header.count;
        const bool isNew = seen_.insert(header.sequence).second;
        isMixed_ = isMixed_ || !isNew || header.count != count_ || header.sequence < 1 ||
                   header.sequence > count_;
        if (isMixed_) return State::Mixed;
        return static_cast<std::int64_t>(seen_.size()) == count_ ? State::Complete : State::Waiting;
    }

    [[nodiscard]] std::size_t packets() const { return seen_.size(); }

  private:
    std::int64_t count_ = 0;
    bool isMixed_ = false;
    std::unordered_set<std::int64_t> seen_;
};

}  // namespace kvx
