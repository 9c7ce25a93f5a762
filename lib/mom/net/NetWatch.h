#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace kvx {

/// Generations of a net's registries and request queue. Outlives the net. Written by the main
/// thread, `queue` with the request mutex held: requesting threads compare it.
struct NetEnds {
    std::uint64_t storage = 0;
    std::uint64_t queue = 0;
};

/// Says, after a call that may have run user code, what is left of a net.
///
/// Valid also after the net is destroyed. The net's main thread only.
class NetWatch {
  public:
    explicit NetWatch(std::shared_ptr<const NetEnds> ends)
        : ends_(std::move(ends)), began_(*ends_) {}

    /// Whether the net, its session and the registries still exist since the watch was made.
    [[nodiscard]] bool storageStands() const { return ends_->storage == began_.storage; }

    /// Whether the net and its request queue still exist.
    [[nodiscard]] bool queueStands() const { return ends_->queue == began_.queue; }

  private:
    std::shared_ptr<const NetEnds> ends_;
    NetEnds began_;
};

}  // namespace kvx
