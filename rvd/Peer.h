#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Clock.h"
#include "rv/error/rvReasons.h"
#include "rv/message/SubjectView.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Limits.h"
#include "rvd/Counters.h"
#include "rvd/Inquiry.h"
#include "rvd/Payload.h"
#include "rvd/State.h"

namespace kvx::rvd {

/// What counts connections that end for that reason; nothing for one that is no failure, or counted
/// where it arises.
[[nodiscard]] std::optional<Counter> counterOf(CloseReason reason);

/// The actions that a peer's bytes request. The calls come in stream order; views are valid during
/// the call.
class PeerActions {
  public:
    virtual ~PeerActions() = default;

    /// Queues bytes of the link itself, in order with everything else.
    virtual void send(wire::Bytes bytes) = 0;
    /// Whether the peer may be a session; else it is told so, and the connection closed.
    virtual bool mayJoin() { return true; }
    /// Makes the peer a session of this space. Called at most once.
    virtual void join(std::string_view service, std::string_view network) = 0;
    /// The peer's session has said its name.
    virtual void named(std::string_view /*session*/) {}
    /// True when the peer's session is in that space.
    virtual bool isIn(std::string_view service, std::string_view network) = 0;
    /// False when the session may not listen to more subjects.
    virtual bool listen(SubjectView subject) = 0;
    virtual void cancel(SubjectView subject) = 0;
    virtual void publish(SubjectView subject, const PayloadRef& message) = 0;
    /// Whether the session follows the interest of its space, and so may report losses.
    virtual bool mayReportLoss() { return false; }
    /// It reports messages on `subject`, which is within `message`, as lost.
    virtual void reportLoss(SubjectView /*subject*/, std::uint64_t /*lost*/,
                            const PayloadRef& /*message*/) {}
    /// It asks the daemon something.
    virtual void ask(const Inquiry& /*inquiry*/) {}
    /// False when the peer's turn is over: it stops reading its bytes.
    virtual bool mayGoOn() = 0;
    /// Closes the connection after the queued output. Called at most once, and last.
    virtual void close(CloseReason reason) = 0;
};

/// The client's address as the daemon reports it, in network byte order; port 0 at a unix socket.
struct PeerAddress {
    std::uint32_t ipAddress = 0;
    std::uint16_t ipPort = 0;
};

enum class PeerState : std::uint8_t {
    AwaitAnswer,     ///< the greeting is out; the client's 12 bytes are due
    AwaitAgreement,  ///< version 4: the answer to the proposal is due
    AwaitBlock,      ///< version 3: the client's block is due
    AwaitInit,       ///< the link is set up; the first init message is due
    Open,            ///< a session of a space
    Closed
};

/// One connection's protocol: bytes and time in, actions out. No socket, clock or log inside.
///
/// `actions` and `counters` must outlive this object. Loop thread only.
class Peer {
  public:
    Peer(PeerAddress address, PeerActions& actions, Counters& counters)
        : address_(address), actions_(actions), counters_(counters) {}

    /// Starts the protocol: sends the greeting.
    void start(platform::Milliseconds now);
    /// Processes received bytes. Returns how many of the last ones are left because the turn is
    /// over: the next call begins with these. `chunk` is not used after the return, except by
    /// published payloads, which are views of it.
    std::size_t receive(wire::Bytes chunk, platform::Milliseconds now);
    /// The peer has taken routed messages, which counts against a silence time-out.
    void tookMessages(platform::Milliseconds now) { tookAt_ = now; }
    /// Acts on elapsed time; call it about once a second.
    void tick(platform::Milliseconds now);
    /// The daemon ends: sends a close notice once the link is set up.
    void shutDown();

    /// Ends the connection because of a limit, with a close notice once the link is set up, and
    /// forgets the message being received. `receive` must not be running.
    void end(CloseReason reason);

    /// For the daemon that takes this one's place: all but the bytes that `receive` has left. A
    /// peer that is restored must be new.
    void save(StateWriter& state) const;
    void restore(StateReader& state);

    [[nodiscard]] PeerState state() const { return state_; }
    /// Bytes of memory held for a message that is not whole.
    [[nodiscard]] std::size_t claimed() const { return reader_.claimed(); }

  private:
    void enter(PeerState state) { state_ = state; }
    void close(CloseReason reason);
    void closeWithNotice(CloseReason reason);

    bool collect(wire::Bytes& chunk, std::size_t size);
    [[nodiscard]] bool isLastSubject(wire::Bytes encoded) const;
    void onAnswer();
    void onAgreement();
    void onBlock();
    std::size_t onFrames(wire::Bytes chunk);
    void onFrame(const wire::Frame& frame);
    void onMessage(const wire::Frame& frame);
    void onFirstMessage(wire::Bytes message);
    bool onInit(wire::Bytes message);
    void refuse(std::int32_t error);
    void onData(wire::Bytes encoded, const wire::Frame& frame);
    void onDaemonSubject(DaemonSubject subject, const wire::Frame& frame);
    void onLossReport(const wire::Frame& frame);
    void onInquiry(DaemonSubject subject, const wire::Frame& frame);
    PayloadRef payloadOf(const wire::Frame& frame);
    void onListen(wire::Bytes encoded);
    void onCancel(wire::Bytes encoded);
    void checkSilence(platform::Milliseconds now);

    // Constant after construction.
    const PeerAddress address_;
    PeerActions& actions_;
    Counters& counters_;

    PeerState state_ = PeerState::AwaitAnswer;
    std::array<std::uint8_t, wire::kParameterBlockSize> block_{};  // fixed-size handshake input
    std::size_t blockFilled_ = 0;
    wire::FrameReader reader_;
    wire::Bytes lastSubject_;   // of the last message to others, within the present chunk
    std::size_t received_ = 0;  // bytes until the first init
    platform::Milliseconds startedAt_ = 0;
    platform::Milliseconds heardAt_ = 0;
    platform::Milliseconds tookAt_ = 0;
    bool probed_ = false;  // a keepalive was sent since the peer was last heard
};

}  // namespace kvx::rvd
