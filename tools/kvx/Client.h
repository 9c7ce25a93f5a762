#pragma once

#include <functional>
#include <memory>
#include <string>

#include "mom/mom.h"
#include "tools/kvx/Options.h"

namespace kvx::tool {

/// A daemon configuration of this process's own, made when options override the configuration file.
/// The file is in a temporary directory that goes with the object.
class ConfigurationOverlay {
  public:
    explicit ConfigurationOverlay(const Connection& connection);
    ~ConfigurationOverlay();
    ConfigurationOverlay(const ConfigurationOverlay&) = delete;
    ConfigurationOverlay& operator=(const ConfigurationOverlay&) = delete;

  private:
    void write(const Connection& connection);

    std::string directory_;  ///< empty when nothing is overridden
};

/// The bus as a subcommand uses it: a client whose main loop runs on this thread, and whose
/// `whenRunning` is called once the loop has started.
class Client {
  public:
    /// `latencyMs` is the time-out of requests. Problems are told on standard error; `isUp` then
    /// says no.
    explicit Client(const Connection& connection, unsigned long latencyMs = 0);

    bool isUp() const { return net_.m_sessionUp == 1 && net_.m_session; }
    CVekRvNet& net() { return net_; }
    RvSession& session() { return *net_.m_session; }

    /// `subject` as typed, or qualified with the domain when one was given.
    std::string qualified(const std::string& subject);

    /// Runs the loop until `leave`, then says which exit status was asked for.
    int run(std::function<void()> whenRunning);
    void leave(int exitStatus);

  private:
    class Net : public CVekClient {
      public:
        using CVekClient::CVekClient;
        void RRNPostInitFns() override {
            if (whenRunning) whenRunning();
        }
        std::function<void()> whenRunning;
    };

    ConfigurationOverlay overlay_;
    const bool qualify_;
    Net net_;
    int exitStatus_ = kSuccess;
};

/// One line on standard error, with the program's name before it.
void complain(const std::string& message);

}  // namespace kvx::tool
