#pragma once

#include <string>

#include "rv/event/rvevm.h"
#include "rv/link/ipq.h"
#include "rv/message/SubjectView.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::bridge {

/// What the daemon has to say.
class DaemonOwner {
  public:
    virtual ~DaemonOwner() = default;
    /// A session of the space, which listens to nothing yet.
    virtual void onDaemonUp() = 0;
    virtual void onDaemonDown(const std::string& why) = 0;
    /// A data message as it came, valid during the call.
    virtual void onDaemonMessage(wire::Bytes message) = 0;
};

/// A session at the daemon of this host, in one space, that passes whole messages on as they are.
/// A lost one is made anew, for ever. Loop thread only; the queue towards the daemon is bounded.
class DaemonLink final : private link::LinkHost {
  public:
    /// `daemon` is "tcp:[host:]port" or "unix:/path". `manager` and `owner` must outlive this
    /// object.
    DaemonLink(rvevm_Manager manager, std::string daemon, std::string service, std::string network,
               DaemonOwner& owner);
    ~DaemonLink();
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    /// Connects soon, and from now on again after each loss. A handshake blocks the loop, for a few
    /// seconds if the daemon is silent.
    void start();

    [[nodiscard]] bool isUp() const { return queue_ != nullptr; }
    /// The name of the session, as the bus knows it; empty until it was up.
    [[nodiscard]] const std::string& name() const { return name_; }

    /// Each returns false, and sends nothing, while it is not up or has no room. There is room for
    /// listens when there is none for messages.
    [[nodiscard]] bool listen(SubjectView subject);
    [[nodiscard]] bool cancel(SubjectView subject);
    [[nodiscard]] bool send(wire::Bytes message);
    [[nodiscard]] bool send(wire::Built message);

    static constexpr unsigned long kPause = 2'000;                 // milliseconds between attempts
    static constexpr std::size_t kMostWaiting = 48 * 1024 * 1024;  // bytes of messages

  private:
    [[nodiscard]] rvevm_Manager linkManager() const override { return manager_; }
    [[nodiscard]] ipq_Properties linkProperties() const override;

    void connectIn(unsigned long milliseconds);
    void connect();
    [[nodiscard]] bool put(wire::Built message);
    [[nodiscard]] std::string greet(platform::Socket& socket) const;
    [[nodiscard]] std::string introduce(platform::Socket socket);
    void lose(const std::string& why);

    // Constant after construction.
    const rvevm_Manager manager_;
    const std::string daemon_;
    const std::string service_;
    const std::string network_;
    DaemonOwner& owner_;

    ipq_Queue queue_ = nullptr;
    rvevm_Id retry_ = nullptr;
    std::string name_;
};

}  // namespace kvx::bridge
