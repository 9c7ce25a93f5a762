#pragma once

#include "rv/event/rvevm.h"
#include "rv/link/ipqProperties.h"

namespace kvx::link {

/// How a link queues unless the session says otherwise.
inline constexpr ipq_Properties kDefaultProperties = {
    .batching = 0, .readBudget = 4096, .segmentSize = 8192};

/// What a queue needs of the session that owns it. The host must outlive its queues.
class LinkHost {
  public:
    /// The manager on which the queue registers its events; null for a synchronous session, whose
    /// queue writes before `ipq_Enqueue` returns and is read by hand.
    [[nodiscard]] virtual rvevm_Manager linkManager() const = 0;
    [[nodiscard]] virtual ipq_Properties linkProperties() const = 0;

  protected:
    LinkHost() = default;
    LinkHost(const LinkHost&) = default;
    LinkHost& operator=(const LinkHost&) = default;
    ~LinkHost() = default;
};

}  // namespace kvx::link
