#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Clock.h"
#include "rv/message/SubjectView.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Limits.h"
#include "rvd/Counters.h"
#include "rvd/Payload.h"

namespace kvx::rvd {

/// Why a connection ends.
enum class CloseReason : std::uint8_t {
    PeerClosed,     ///< the peer sent its close notice
    BadGreeting,    ///< first word not zero, or a version that is not spoken here
    BadParameters,  ///< no agreement on the queue
    BadFrame,       ///< the byte stream is no sequence of messages
    NoInit,         ///< something other than an init message came first
    TooMuchAtOnce,  ///< too many bytes before the first init message
    TooManyListens,
    TimedOut,     ///< no init in time, or silent for too long
    ShuttingDown  ///< the daemon ends
};
[[nodiscard]] const char* closeText(CloseReason reason);

/// What a peer's bytes ask for. The calls come in stream order; views are valid during the call.
class PeerActions {
  public:
    virtual ~PeerActions() = default;

    /// Bytes of the link itself, to be written in order with everything else.
    virtual void send(wire::Bytes bytes) = 0;
    /// The peer is a session of this space from now on. Called at most once.
    virtual void join(std::string_view service, std::string_view network) = 0;
    /// True when the peer's session is in that space.
    virtual bool isIn(std::string_view service, std::string_view network) = 0;
    /// False when the session may not listen to more subjects.
    virtual bool listen(SubjectView subject) = 0;
    virtual void cancel(SubjectView subject) = 0;
    virtual void publish(SubjectView subject, const PayloadRef& message) = 0;
    /// The connection is to be closed after what was sent. Called at most once, and last.
    virtual void close(CloseReason reason) = 0;
};

/// The client's TCP address as the daemon reports it, in network byte order.
struct PeerAddress {
    std::uint32_t ipAddress = 0;
    std::uint16_t ipPort = 0;
};

enum class PeerState : std::uint8_t {
    AwaitAnswer,     ///< the greeting is out; the client's 12 bytes are due
    AwaitAgreement,  ///< version 4: the answer to the proposal is due
    AwaitBlock,      ///< version 3: the client's block is due
    AwaitInit,       ///< the link stands; the first init message is due
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

    /// The connection stands: sends the greeting.
    void start(platform::Milliseconds now);
    /// Bytes that came; `chunk` is used up when this returns, except by payloads that were
    /// published as views of it.
    void receive(wire::Bytes chunk, platform::Milliseconds now);
    /// The peer has taken messages that were routed to it: it lives, though it may say nothing.
    void tookMessages(platform::Milliseconds now) { tookAt_ = now; }
    /// Time has passed; to be called about once a second.
    void tick(platform::Milliseconds now);
    /// The daemon ends: sends a close notice when the link stands.
    void shutDown();

    [[nodiscard]] PeerState state() const { return state_; }

  private:
    void enter(PeerState state) { state_ = state; }
    void close(CloseReason reason);

    bool collect(wire::Bytes& chunk, std::size_t size);
    void onAnswer();
    void onAgreement();
    void onBlock();
    void onFrames(wire::Bytes chunk);
    void onFrame(const wire::Frame& frame);
    void onMessage(const wire::Frame& frame);
    void onFirstMessage(wire::Bytes message);
    bool onInit(wire::Bytes message);
    void onData(wire::Bytes encoded, const wire::Frame& frame);
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
    std::size_t received_ = 0;  // bytes until the first init
    platform::Milliseconds startedAt_ = 0;
    platform::Milliseconds heardAt_ = 0;
    platform::Milliseconds tookAt_ = 0;
    bool probed_ = false;  // a keepalive went out since the peer was last heard
};

}  // namespace kvx::rvd
