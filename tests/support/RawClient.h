#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "rv/wire/Bytes.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Greeting.h"
#include "rv/wire/ParameterBlock.h"

namespace kvx::test {

/// A data message as it came.
struct Received {
    std::string subject;  ///< dotted text
    std::string reply;    ///< empty: none
    std::string text;     ///< the payload, when it is a string
    std::vector<std::uint8_t> bytes;
};

/// A client that speaks the link byte by byte: no queue, no loop, no reconnect, one blocking
/// socket.
///
/// Waits are for the awaited thing itself; what does not come within a minute throws
/// `std::runtime_error`.
class RawClient {
  public:
    /// Connects and does nothing more. `receiveBuffer`: bytes asked of the kernel, 0 for its own
    /// choice.
    explicit RawClient(std::uint16_t port, int receiveBuffer = 0);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    RawClient(RawClient&& other) noexcept;

    /// Connected, negotiated in that version, announced in that space.
    static RawClient session(std::uint16_t port, const char* service = "", const char* network = "",
                             std::uint32_t version = wire::kProtocolV4);

    // The steps of a handshake.
    wire::Greeting readGreeting();
    void answer(std::uint32_t version, std::uint32_t first = 0);
    wire::ParameterBlock readBlock();
    void sendBlock(const wire::ParameterBlock& block);
    /// Greeting and parameters, up to where init messages may be sent.
    void negotiate(std::uint32_t version = wire::kProtocolV4);
    /// The first init and its answer.
    wire::Reply announce(const char* service, const char* network);
    /// The second init.
    void confirm(const char* service, const char* network, const char* name);

    void listen(const std::string& subject);
    void cancel(const std::string& subject);
    void publish(const std::string& subject, const std::string& text,
                 const std::string& reply = {});
    /// Returns when the daemon has taken everything sent so far.
    void settle();

    void send(wire::Bytes bytes);
    void send(const wire::Built& built) { send(built.message.view()); }

    /// The next data message, whole.
    Received expectNext();
    /// The next data message's payload.
    std::string expectText() { return expectNext().text; }
    /// The next thing of any kind; a copy of the message's bytes in `bytes`.
    wire::FrameKind expectFrame(std::vector<std::uint8_t>* bytes = nullptr);
    /// Reads until the daemon closes. True when a close notice came first.
    bool expectClosed();
    /// Sends the close notice and waits until the daemon closes.
    void closeGracefully();
    void disconnect();

    [[nodiscard]] std::uint16_t localPort() const;

  private:
    void receive(std::uint8_t* to, std::size_t count);
    std::size_t receiveSome(std::uint8_t* to, std::size_t room);

    int socket_ = -1;
    std::vector<std::uint8_t> buffer_;
    wire::FrameReader reader_;
    std::deque<Received> early_;  // data messages that came while something else was awaited
    int markers_ = 0;
};

/// A data message of a text payload, as a client would send it.
std::vector<std::uint8_t> dataMessage(const std::string& subject, const std::string& text,
                                      const std::string& reply = {});

/// An encoded subject; throws for text that is none.
std::vector<std::uint8_t> encodedSubject(const std::string& text);

/// What a data message says.
Received readData(wire::Bytes message);

}  // namespace kvx::test
