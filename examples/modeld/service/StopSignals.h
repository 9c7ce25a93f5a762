#pragma once

#include "mom/mom.h"

namespace modeld {

/// The signals of a service that wants to end in its own order: SIGINT, SIGTERM and SIGUSR1 leave
/// the main loop instead of ending the process, so that the group hears of the leave at once and
/// everything is destroyed after what uses it. Main thread only; `net` must outlive the handling.
class StopSignals : public CMOMSignalHandler {
  public:
    explicit StopSignals(CVekRvNet& net) : net_(net) {}

    bool registerHandler(CCallbackBase* exitCallback) override;

  private:
    CVekRvNet& net_;
};

}  // namespace modeld
