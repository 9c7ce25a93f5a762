#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tools/bus/Ticker.h"

namespace kvx::bus {

/// A line about a long run, drawn anew every second on standard error when that is a terminal, and
/// taken away at the end. In a pipe nothing is said. Main thread, once the net is up.
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
