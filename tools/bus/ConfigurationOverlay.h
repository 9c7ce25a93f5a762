#pragma once

#include <optional>
#include <string>

#include "tools/bus/Connection.h"
#include "tools/bus/Program.h"

namespace kvx::bus {

/// A daemon configuration of this process's own, in effect while the object lives.
///
/// A network object takes service, network and daemon from the configuration file alone. When
/// options override any of them, this writes a file with what is in effect (the agent's item goes
/// along) into a temporary directory and points `KVX_HOME` there. Main thread only, and only while
/// no other thread reads the environment: build it, build the network object, let it go.
class ConfigurationOverlay {
  public:
    explicit ConfigurationOverlay(const Connection& connection);
    ~ConfigurationOverlay();
    ConfigurationOverlay(const ConfigurationOverlay&) = delete;
    ConfigurationOverlay& operator=(const ConfigurationOverlay&) = delete;

    /// False when options were given that could not be put into effect; the user has been told.
    bool isInEffect() const { return inEffect_; }

  private:
    bool write(const Connection& connection) const;

    bool inEffect_ = true;
    std::string directory_;                  // empty when nothing is overridden
    std::optional<std::string> homeBefore_;  // of KVX_HOME
    std::optional<CleanUpScope> cleanUp_;
};

}  // namespace kvx::bus
