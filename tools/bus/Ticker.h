#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "mom/mom.h"

namespace kvx::bus {

/// Calls a function on the main thread, once or repeatedly, until it is destroyed.
class Ticker : public RvTimerCallback {
  public:
    enum class Repeat { Once, Forever };

    /// `net` must outlive this object. Main thread, once the net is up.
    Ticker(CVekRvNet& net, unsigned long intervalMs, Repeat repeat, std::function<void()> tick)
        : tick_(std::move(tick)) {
        int status = 0;
        timer_.reset(net.RRNNewTimer(&status, intervalMs,
                                     repeat == Repeat::Forever ? rv_TRUE : rv_FALSE, this, &net));
    }

    void onTimer(RvTimer*) override { tick_(); }

  private:
    std::function<void()> tick_;
    std::unique_ptr<RvTimer> timer_;
};

/// A progress line, redrawn every second on standard error when that is a terminal, and erased at
/// the end; nothing in a pipe. Main thread, once the net is up.
class Progress {
  public:
    /// `net` must outlive this object; `text` is called from its loop.
    Progress(CVekRvNet& net, std::function<std::string()> text);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

  private:
    std::optional<Ticker> ticker_;
};

}  // namespace kvx::bus
