#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "rv/message/WireFormat.h"
#include "tests/support/LinkEnd.h"

namespace kvx::test {

/// A data message as it came.
struct Received {
    std::string subject;  ///< dotted text
    std::string reply;    ///< empty: none
    std::string text;     ///< the payload, when it is a string
    ByteVector bytes;
};

/// What a data message says.
inline Received readData(wire::Bytes message) {
    Received received;
    received.bytes.assign(message.begin(), message.end());
    const wire::Bytes subject = wire::readRouting(message).subject;
    if (const auto view = SubjectView::parse(subject.data(), subject.size())) {
        received.subject = view->text();
    }
    received.reply = textOf(received.bytes, wire::field::kReturn).value_or("");
    received.text = textOf(received.bytes, wire::field::kData).value_or("");
    return received;
}

/// A notice of lost messages.
struct Loss {
    std::uint64_t messages;
    std::uint64_t bytes;
    std::string cause;
};

/// What a notice says; nothing for another message, or one without these fields.
inline std::optional<Loss> lossIn(const Received& notice) {
    const auto data = findField(notice.bytes, wire::field::kData);
    if (notice.subject != "_RV.WARN.SYSTEM.DATALOSS" || !data) return std::nullopt;
    const auto lost = findField(data->bytes(), "lost");
    const auto bytes = findField(data->bytes(), "bytes");
    const auto cause = findField(data->bytes(), "cause");
    if (!lost || lost->size != 4 || !bytes || bytes->size != 8 || !cause) return std::nullopt;
    return Loss{loadBig32(lost->data), loadBig64(bytes->data),
                std::string(cause->text().value_or(""))};
}

/// A client that speaks the link byte by byte: no queue, no loop, no reconnect, one blocking
/// socket. What cannot come any more throws `std::runtime_error`.
class RawClient : public LinkEnd {
  public:
    /// Connects and does nothing more.
    explicit RawClient(std::uint16_t port, int receiveBuffer = 0)
        : LinkEnd(connectedTo(port, receiveBuffer)) {}
    /// The same at a unix socket.
    explicit RawClient(const std::string& path) : LinkEnd(connectedTo(path)) {}
    /// Has connected.
    explicit RawClient(platform::Socket socket) : LinkEnd(std::move(socket)) {}

    /// Connected to a port or a path, negotiated in that version, announced in that space.
    template <class Address>
    static RawClient session(const Address& address, const char* service = "",
                             const char* network = "", std::uint32_t version = wire::kProtocolV4) {
        RawClient client(address);
        client.negotiate(version);
        const auto reply = client.announce(service, network);
        if (reply.code != 0) throw std::runtime_error("refused with " + std::to_string(reply.code));
        client.confirm(service, network, ("RAW." + std::to_string(client.localPort())).c_str());
        return client;
    }

    /// Negotiated and announced, but without a name. With a small receive buffer, what it does not
    /// read soon waits in the daemon.
    static RawClient nameless(std::uint16_t port, int receiveBuffer = 0) {
        RawClient client(port, receiveBuffer);
        client.negotiate();
        client.announce("", "");
        return client;
    }

    /// Greeting and parameters, up to where init messages may be sent.
    void negotiate(std::uint32_t version = wire::kProtocolV4) {
        readGreeting();
        greet(version, 0, 1);
        if (version == wire::kProtocolV3) {
            sendBlock(wire::clientBlockV3());
            readBlock();
            return;
        }
        sendBlock(wire::clientStep(readBlock()).block);
        if (wire::clientStep(readBlock()).action != wire::NegotiationStep::Action::Accepted) {
            throw std::runtime_error("no agreement");
        }
    }
    /// The first init and its answer.
    wire::Reply announce(const char* service, const char* network) {
        send(wire::buildInit({"tester", nullptr, service, network, nullptr, {}}));
        return wire::readReply(expectMessage());
    }
    /// The second init.
    void confirm(const char* service, const char* network, const char* name) {
        send(wire::buildInit({"tester", name, service, network, "_INBOX.CONTROL", {}}));
    }

    void listen(const std::string& subject) {
        send(wire::buildListen(encodedSubject(subject), nullptr, 0));
    }
    void cancel(const std::string& subject) { send(wire::buildCancel(encodedSubject(subject), 0)); }
    /// Returns when the daemon has taken everything sent so far.
    void settle() {
        const std::string marker =
            "MARKER." + std::to_string(number_) + '.' + std::to_string(++markers_);
        listen(marker);
        publish(marker, "");
        cancel(marker);
        for (Received received = readData(expectMessage()); received.subject != marker;
             received = readData(expectMessage())) {
            early_.push_back(std::move(received));
        }
    }

    /// The next data message, whole.
    Received expectNext() {
        if (early_.empty()) return readData(expectMessage());
        Received first = std::move(early_.front());
        early_.pop_front();
        return first;
    }
    /// The next data message's payload.
    std::string expectText() { return expectNext().text; }
    /// Reads until the daemon closes. True when a close notice came first.
    bool expectClosed() {
        bool noticed = false;
        for (ByteVector next = readMessage(); !next.empty(); next = readMessage()) {
            noticed = noticed || isBlock(next, wire::kCloseBlock);
        }
        return noticed;
    }

    /// 0 of a unix socket.
    [[nodiscard]] std::uint16_t localPort() const {
        return platform::localEndpoint(socket()).value_or(platform::Endpoint()).port;
    }

  private:
    static bool isBlock(const ByteVector& bytes, const auto& block) {
        return std::equal(bytes.begin(), bytes.end(), block.begin(), block.end());
    }
    ByteVector expectMessage() {
        ByteVector next = readMessage();
        while (isBlock(next, wire::kKeepaliveBlock)) next = readMessage();
        if (next.size() <= kHeaderBytes) throw std::runtime_error("the daemon closes");
        return next;
    }

    std::deque<Received> early_;  // data messages that came while something else was awaited
    int markers_ = 0;
    static inline std::atomic<int> made_ = 0;
    int number_ = ++made_;  // unique in this process
};

}  // namespace kvx::test
