#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/Socket.h"
#include "rv/rv.h"

class CVekRvNet;

namespace kvx {

/// Work that other threads hand to a net's main loop, which a byte through a pair of sockets wakes.
class LoopPosts : public RvIOCallback {
  public:
    using Sockets = std::pair<platform::Socket, platform::Socket>;

    LoopPosts(CVekRvNet& net, Sockets sockets) : m_net(net), m_sockets(std::move(sockets)) {}
    LoopPosts(const LoopPosts&) = delete;
    LoopPosts& operator=(const LoopPosts&) = delete;

    /// Returns 1, -220544 without a session, -220370 when the session refuses. Main thread.
    int start();

    /// Any thread.
    void post(std::function<void()> work);

    /// Runs what waits now; what that posts waits for the next turn.
    void onIO(RvIO* io) override;

  private:
    CVekRvNet& m_net;
    const Sockets m_sockets;        // what the main loop watches, and what other threads write to
    std::unique_ptr<RvIO> m_watch;  // of the net's session; main thread only

    std::mutex m_mutex;
    std::deque<std::function<void()>> m_waiting;  // guarded by m_mutex
};

}  // namespace kvx
