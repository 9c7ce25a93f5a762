#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Socket.h"
#include "rv/message/SubjectView.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Greeting.h"
#include "rv/wire/Negotiation.h"

namespace kvx::test {

using ByteVector = std::vector<std::uint8_t>;

/// The daemon's end of one connection, driven step by step by a test. Reads block without limit.
class PeerLink {
  public:
    explicit PeerLink(platform::Socket socket) : socket_(std::move(socket)) {}

    void send(wire::Bytes bytes) {
        while (!bytes.empty()) {
            const auto sent = platform::sendSome(socket_.get(), std::as_bytes(bytes));
            if (sent.error != 0) return;
            bytes = bytes.subspan(sent.bytes);
        }
    }
    void send(const wire::Built& built) { send(built.message.view()); }
    void sendByteByByte(wire::Bytes bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) send(bytes.subspan(i, 1));
    }

    /// Exactly `count` bytes, or fewer when the client closes.
    ByteVector read(std::size_t count) {
        ByteVector bytes(count);
        std::size_t have = 0;
        while (have < count) {
            const auto got = platform::receiveSome(
                socket_.get(), std::as_writable_bytes(std::span(bytes).subspan(have)));
            if (got.bytes == 0) break;
            have += got.bytes;
        }
        bytes.resize(have);
        return bytes;
    }
    /// The next message or 8-byte block; empty at the end of the stream.
    ByteVector readMessage() {
        ByteVector bytes = read(wire::kFrameHeaderSize);
        if (bytes.size() < wire::kFrameHeaderSize) return {};
        const std::uint32_t length = loadBig32(bytes.data());
        if (length <= wire::kFrameHeaderSize) return bytes;
        const ByteVector rest = read(length - wire::kFrameHeaderSize);
        bytes.insert(bytes.end(), rest.begin(), rest.end());
        return bytes;
    }

    /// Takes messages until the client closes; what they were.
    std::vector<ByteVector> readToTheEnd() {
        std::vector<ByteVector> messages;
        for (ByteVector message = readMessage(); message.size() > wire::kFrameHeaderSize;
             message = readMessage())
            messages.push_back(std::move(message));
        return messages;
    }

    void greet(std::uint32_t version, std::uint32_t first = 0) {
        send(wire::encode(wire::Greeting{first, version, 0}));
    }
    wire::Greeting readGreeting() {
        wire::GreetingBytes bytes{};
        const ByteVector got = read(bytes.size());
        std::copy(got.begin(), got.end(), bytes.begin());
        return wire::decodeGreeting(bytes);
    }
    void sendBlock(const wire::ParameterBlock& block) { send(wire::encode(block)); }
    wire::ParameterBlock readBlock() {
        wire::ParameterBytes bytes{};
        const ByteVector got = read(bytes.size());
        std::copy(got.begin(), got.end(), bytes.begin());
        return wire::decodeParameters(bytes);
    }

    void negotiateV4() {
        greet(wire::kProtocolV4);
        readGreeting();
        sendBlock(wire::daemonProposal());
        sendBlock(wire::daemonStep(readBlock()).block);
    }
    /// Answers the session's introduction; `address` is what it is told about itself.
    void introduce(std::uint32_t address = 0x0100007F, std::uint16_t port = 1234) {
        readMessage();
        send(wire::buildReply(address, port));
        readMessage();
    }
    void welcome() {
        negotiateV4();
        introduce();
    }
    void publish(const char* subject, const char* text, const char* reply = nullptr) {
        const auto encoded = Subject::fromText(subject);
        const SubjectView view = *encoded;
        send(wire::buildData({static_cast<const std::uint8_t*>(view.data()), view.length()}, reply,
                             0, {RVMSG_STRING, 0, text}));
    }

    [[nodiscard]] platform::SocketHandle socket() const { return socket_.get(); }
    void close() { socket_.reset(); }

  private:
    platform::Socket socket_;
};

/// What a message says in its "mtype" and "sub" fields, for example "L:A.B".
inline std::string headline(const ByteVector& message) {
    if (message.size() <= wire::kFrameHeaderSize) return "";
    const wire::Routing routing = wire::readRouting(message);
    std::string text(1, static_cast<char>(routing.type));
    if (routing.subject.empty()) return text;
    return text + ":" + SubjectView::trusted(routing.subject.data()).text();
}

/// A text field of a message; nothing when it is absent.
inline std::optional<std::string> textOf(const ByteVector& message, const char* name) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message.data(), name, &type, &size, &data) != 0 || type != RVMSG_STRING)
        return std::nullopt;
    return std::string(static_cast<const char*>(data));
}

/// A daemon that does exactly what a test says: one script for each connection, in order, on a
/// thread of its own. A connection is closed when its script returns; after the last script nobody
/// accepts.
class ScriptedDaemon {
  public:
    using Script = std::function<void(PeerLink&)>;

    explicit ScriptedDaemon(std::vector<Script> scripts) : scripts_(std::move(scripts)) {
        int error = 0;
        listener_ = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        port_ = platform::localEndpoint(listener_.get())->port;
        thread_ = std::thread([this] { serve(); });
    }
    explicit ScriptedDaemon(Script script)
        : ScriptedDaemon(std::vector<Script>{std::move(script)}) {}
    ~ScriptedDaemon() { finish(); }
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;

    [[nodiscard]] std::string text() const { return "tcp:127.0.0.1:" + std::to_string(port_); }
    [[nodiscard]] std::uint16_t port() const { return port_; }

    /// Waits for the running script; scripts that no connection asked for are not run.
    void finish() {
        if (!thread_.joinable()) return;
        stopping_ = true;
        int error = 0;
        const platform::Socket nudge = platform::createTcpSocket(error);
        platform::connectSocket(nudge.get(), {platform::kLoopbackAddress, port_});
        thread_.join();
    }

  private:
    void serve() {
        for (const Script& script : scripts_) {
            int error = 0;
            PeerLink link(platform::acceptTcp(listener_.get(), error));
            if (stopping_) return;
            script(link);
        }
        listener_.reset();
    }

    std::vector<Script> scripts_;
    platform::Socket listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace kvx::test
