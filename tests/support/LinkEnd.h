#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Socket.h"
#include "platform/UnixSocket.h"
#include "rv/message/RvMsg.h"
#include "rv/message/SubjectView.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvSubject.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Negotiation.h"

namespace kvx::test {

using ByteVector = std::vector<std::uint8_t>;

inline ByteVector bytesOf(const RvMsg& message) {
    const auto* begin = static_cast<const std::uint8_t*>(message.data());
    return {begin, begin + message.size()};
}

inline ByteVector bytesOf(const wire::Built& built) {
    const wire::Bytes bytes = built.message.view();
    return {bytes.begin(), bytes.end()};
}

/// An encoded subject; throws for text that is none.
inline ByteVector encodedSubject(const std::string& text) {
    ByteVector encoded(wire::kSubjectCapacity);
    const int length = rvSubject_FromText(encoded.data(), wire::kSubjectCapacity, text.c_str());
    if (length < 0) throw std::runtime_error("no subject: " + text);
    encoded.resize(static_cast<std::size_t>(length));
    return encoded;
}

/// A data message of a text payload, as a client would send it.
inline ByteVector dataMessage(const std::string& subject, const std::string& text,
                              const char* reply = nullptr) {
    const auto size = static_cast<rvmsg_Size>(text.size() + 1);
    return bytesOf(
        wire::buildData(encodedSubject(subject), reply, 0, {RVMSG_STRING, size, text.c_str()}));
}

/// A socket connected to `port` of the loopback; throws when nobody listens there.
/// `receiveBuffer`: bytes asked of the kernel, 0 for its own choice.
inline platform::Socket connectedTo(std::uint16_t port, int receiveBuffer = 0) {
    int error = 0;
    platform::Socket socket = platform::createTcpSocket(error);
    platform::setNoDelay(socket.get(), true);
    if (receiveBuffer > 0) platform::setBufferSizes(socket.get(), receiveBuffer, receiveBuffer);
    if (platform::connectSocket(socket.get(), {platform::kLoopbackAddress, port}) != 0) {
        throw std::runtime_error("cannot connect");
    }
    return socket;
}

/// The same at a unix socket.
inline platform::Socket connectedTo(const std::string& path) {
    int error = 0;
    platform::Socket socket = platform::createUnixSocket(error);
    if (platform::connectUnix(socket.get(), path) != 0) throw std::runtime_error("cannot connect");
    return socket;
}

/// One end of a link, driven step by step by a test. Reads block without limit.
class LinkEnd {
  public:
    explicit LinkEnd(platform::Socket socket) : socket_(std::move(socket)) {}

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

    /// Exactly `count` bytes, or fewer when the other end closes.
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
        ByteVector bytes = read(kHeaderBytes);
        if (bytes.size() < kHeaderBytes) return {};
        const std::uint32_t length = loadBig32(bytes.data());
        if (length <= kHeaderBytes) return bytes;
        const ByteVector rest = read(length - kHeaderBytes);
        bytes.insert(bytes.end(), rest.begin(), rest.end());
        return bytes;
    }

    /// Takes messages until the other end closes; what they were.
    std::vector<ByteVector> readToTheEnd() {
        std::vector<ByteVector> messages;
        while (true) {
            ByteVector message = readMessage();
            if (message.size() <= kHeaderBytes) return messages;
            messages.push_back(std::move(message));
        }
    }

    void greet(std::uint32_t version, std::uint32_t first = 0, std::uint32_t last = 0) {
        send(wire::encode(wire::Greeting{first, version, last}));
    }
    wire::Greeting readGreeting() { return wire::decodeGreeting(readArray<wire::GreetingBytes>()); }
    void sendBlock(const wire::ParameterBlock& block) { send(wire::encode(block)); }
    wire::ParameterBlock readBlock() {
        return wire::decodeParameters(readArray<wire::ParameterBytes>());
    }
    void publish(const std::string& subject, const std::string& text, const char* reply = nullptr) {
        send(dataMessage(subject, text, reply));
    }

    [[nodiscard]] platform::SocketHandle socket() const { return socket_.get(); }
    void close() { socket_.reset(); }

  private:
    template <class Array>
    Array readArray() {
        Array bytes{};
        const ByteVector got = read(bytes.size());
        std::copy(got.begin(), got.end(), bytes.begin());
        return bytes;
    }

    platform::Socket socket_;
};

/// What a message says in its "mtype" and "sub" fields, for example "L:A.B".
inline std::string headline(const ByteVector& message) {
    if (message.size() <= kHeaderBytes) return "";
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

}  // namespace kvx::test
