#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace kvx {

/// How often a net has given up its registries, and its request queue. Outlives the net. Written by
/// the main thread, `queue` with the request mutex held: a thread that asks compares it.
struct NetEnds {
    std::uint64_t storage = 0;
    std::uint64_t queue = 0;
};

/// Tells, after a call that may have run user code, what that left of a net.
///
/// Good for as long as anybody wants it, also when the net is gone. The net's main thread only.
class NetWatch {
  public:
    explicit NetWatch(std::shared_ptr<const NetEnds> ends)
        : ends_(std::move(ends)), began_(*ends_) {}

    /// Whether the net, its session and the registries are those of the watch's beginning.
    [[nodiscard]] bool storageStands() const { return ends_->storage == began_.storage; }

    /// Whether the net and its request queue are.
    [[nodiscard]] bool queueStands() const { return ends_->queue == began_.queue; }

  private:
    std::shared_ptr<const NetEnds> ends_;
    NetEnds began_;
};

}  // namespace kvx
