#pragma once

#include <functional>
#include <span>

#include "mom/mom.h"
#include "tools/beats/GroupTable.h"

namespace kvx::beats {

/// Receives beats from the bus: passes on the packets, and the beats of groups.
///
/// Beats go to exactly "ZEMBRALIX.3.0.CTRL.NOTIFY"; the domain is in the beat. A service that beats
/// on another subject is heard when that subject is below this prefix, such as one qualified with a
/// domain. The control service's own notifications arrive there too, and are not beats.
class BeatListener : public RvDataCallback {
  public:
    /// `packet` is each message's packet, empty when it has none; valid during the call. Main
    /// thread only.
    using Hear = std::function<void(std::span<const unsigned char> packet)>;
    using HearMember = std::function<void(const MemberBeat& beat)>;
    BeatListener(Hear packet, HearMember member)
        : hear_(std::move(packet)), hearMember_(std::move(member)) {}

    /// Listens until `net` terminates. This object must outlive its loop. False when the bus
    /// refuses.
    [[nodiscard]] bool listen(CVekRvNet& net);

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;

  private:
    Hear hear_;
    HearMember hearMember_;
};

}  // namespace kvx::beats
