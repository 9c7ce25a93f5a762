#pragma once

#include <functional>
#include <string>

#include "mom/mom.h"
#include "tools/bus/ConfigurationOverlay.h"
#include "tools/bus/Connection.h"

namespace kvx::bus {

/// The bus as a program uses it: a client whose main loop runs on this thread, and whose
/// `whenRunning` is called once the loop has started. Main thread only.
class Client {
  public:
    /// `latencyMs` is the time-out of requests. Problems are told on standard error; `isUp` then
    /// says no.
    explicit Client(const Connection& connection, unsigned long latencyMs = 0);

    bool isUp() const { return configured_ && net_.m_sessionUp == 1 && net_.m_session; }
    CVekRvNet& net() { return net_; }
    RvSession& session() { return *net_.m_session; }

    /// `subject` as typed, or qualified with the domain when one was given.
    std::string qualified(const std::string& subject);

    /// Runs the loop until `leave`, then returns the exit status that was asked for.
    int run(std::function<void()> whenRunning);

    /// The same, and SIGINT and SIGTERM leave with status 0 too.
    int runUntilSignal(std::function<void()> whenRunning);

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

    // The overlay is there while the network object is built, and no longer.
    Client(const ConfigurationOverlay& overlay, const Connection& connection,
           unsigned long latencyMs);

    const bool configured_;
    const bool qualify_;
    Net net_;
    int exitStatus_ = 1;  // of a loop that nobody has asked to leave
};

}  // namespace kvx::bus
