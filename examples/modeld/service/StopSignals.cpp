#include "examples/modeld/service/StopSignals.h"

#include <memory>

namespace modeld {

namespace {

class LeaveLoop : public CCallbackBase {
  public:
    explicit LeaveLoop(CVekRvNet& net) : net_(net) {}
    void operator()() override { net_.RRNStopLoop(); }

  private:
    CVekRvNet& net_;
};

}  // namespace

bool StopSignals::registerHandler(CCallbackBase*) {
    // The signal catcher keeps it until the process ends.
    auto leave = std::make_unique<LeaveLoop>(net_);
    return CMOMSignalHandler::registerHandler(leave.release());
}

}  // namespace modeld
