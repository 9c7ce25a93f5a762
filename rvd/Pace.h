#pragma once

#include <cstdint>
#include <string>

#include "rvd/Outbox.h"

namespace kvx::rvd {

/// Whether a peer keeps up with its queue, as looked at now and then.
class Pace {
  public:
    struct Look {
        bool hasTaken = false;  ///< messages were delivered since the last look
        bool isBehind = false;  ///< messages were dropped, and it does not keep up again
        std::string text;       ///< what to log of the peer, when `isBehind` has changed
    };
    /// A peer keeps up again when nothing was dropped since the last look, and the queue, of that
    /// limit in bytes, is empty or goes down. Throws `std::bad_alloc`.
    Look look(const Outbox& queue, std::size_t queueLimit);

  private:
    std::uint64_t deliveriesSeen_ = 0;  // of messages, up to the last look
    std::uint64_t lossesSeen_ = 0;
    std::uint64_t lossesToldOf_ = 0;  // when it kept up last
    bool isBehind_ = false;
};

}  // namespace kvx::rvd
