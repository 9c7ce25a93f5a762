#pragma once

#include <functional>
#include <optional>
#include <string>

#include "rva/DaemonFigures.h"
#include "tools/bus/DaemonQuestion.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

/// Asks the daemon about itself at an interval, one question of each topic at a time, and says on
/// standard error when it begins and ceases to answer. Main thread, while the loop runs.
class DaemonWatch {
  public:
    /// `isRound`: once an interval, when what the daemon says of its status is there or is not.
    using Publish = std::function<void(const DaemonFigures&, bool isRound)>;

    /// Calls `publish` with the figures whenever they have changed. `net` must outlive this object.
    DaemonWatch(CVekRvNet& net, unsigned intervalSeconds, Publish publish);

    /// The session is lost, or is there again.
    void lose();
    void gain();

  private:
    void ask();
    void take(Topic topic, const Json& answer, const std::string& error);
    void tell(Answering before, const std::string& error) const;

    CVekRvNet& net_;
    const Publish publish_;
    DaemonFigures figures_;
    bool isLost_ = false;
    bus::DaemonQuestion status_;
    bus::DaemonQuestion sessions_;
    bus::DaemonQuestion subjects_;
    bus::Ticker ticker_;
    std::optional<bus::Ticker> soon_;
};

}  // namespace kvx::rva
