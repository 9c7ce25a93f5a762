#pragma once

#include "examples/modeld/service/ModelService.h"
#include "mom/mom.h"

namespace modeld {

/// Logs what the service has done and what waits: as information when there is news, else for
/// debugging.
class StatisticsPoll : public CVekTimedWork {
  public:
    /// Both must outlive the running of the poll. `seconds` between two lines.
    StatisticsPoll(CVekEngine& engine, const ModelService& service, int seconds);

    void RTWDoPoll() override;
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }

  private:
    CVekEngine& engine_;
    const ModelService& service_;
    std::uint64_t told_ = 0;  ///< answers at the last line
};

}  // namespace modeld
