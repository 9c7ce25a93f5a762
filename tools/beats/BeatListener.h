#pragma once

#include <functional>
#include <span>

#include "mom/mom.h"

namespace kvx::beats {

/// Hears beats on the bus and hands on the packets.
///
/// Beats go to "ZEMBRALIX.3.0.CTRL.NOTIFY" as it stands, whatever the domain: it is in the beat. A
/// service that was told to beat on a subject of its own choice is heard when that one is below the
/// same prefix, as one qualified with a domain is; the control service's own notifications arrive
/// there too, and are no beats.
class BeatListener : public RvDataCallback {
  public:
    /// `packet` gets the bytes of each message's packet, an empty span when it has none; they are
    /// valid during the call. Main thread only.
    using Hear = std::function<void(std::span<const unsigned char> packet)>;
    explicit BeatListener(Hear packet) : hear_(std::move(packet)) {}

    /// Listens until `net` ends. This object must outlive its loop. False when the bus refuses.
    [[nodiscard]] bool listen(CVekRvNet& net);

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;

  private:
    Hear hear_;
};

}  // namespace kvx::beats
