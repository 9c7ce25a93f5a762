#pragma once

#include <atomic>
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
    ~LoopPosts() override;
    LoopPosts(const LoopPosts&) = delete;
    LoopPosts& operator=(const LoopPosts&) = delete;

    /// The result of `RRNAddIOHandle`. Main thread.
    int start();
    /// The net deletes its I/O handlers itself. Main thread.
    void leaveHandlerToNet() { m_isWatching = false; }

    /// Any thread.
    void post(std::function<void()> work);

    /// Runs what waits now; what that posts waits for the next turn.
    void onIO(RvIO* io) override;

  private:
    [[nodiscard]] unsigned int handle() const {
        return static_cast<unsigned int>(m_sockets.first.get());
    }

    CVekRvNet& m_net;
    const Sockets m_sockets;    // what the main loop watches, and what other threads write to
    bool m_isWatching = false;  // main thread only

    std::mutex m_mutex;
    std::deque<std::function<void()>> m_waiting;  // guarded by m_mutex
};

}  // namespace kvx
