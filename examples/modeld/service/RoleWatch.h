#pragma once

#include <functional>

#include "mom/mom.h"

namespace modeld {

/// Follows the role that an engine has in its group.
///
/// The group changes the engine's flag and calls nobody, so the flag is looked at: every 50 ms, and
/// whenever somebody asks. Main thread only; `engine` must outlive the watching.
class RoleWatch : public RvTimerCallback {
  public:
    using Changed = std::function<void(bool active)>;

    /// `changed` is called once when the watching starts and then at each change.
    RoleWatch(CVekEngine& engine, Changed changed);

    /// Starts the watching. False when there is no timer to be had.
    [[nodiscard]] bool start();

    /// Whether the engine is active now. Tells a change before it returns.
    bool isActive();

    void onTimer(RvTimer* timer) override;

  private:
    CVekEngine& engine_;
    const Changed changed_;
    bool active_ = false;
};

}  // namespace modeld
