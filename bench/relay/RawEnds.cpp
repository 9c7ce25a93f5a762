// Bare sockets. All messages of a thread have one size, so a receiver steps through what it has
// read by that size and checks each length word. A sender has its messages built in advance, one
// after another, and writes blocks of `kBlock` bytes of them after setting their stamps.

#include <algorithm>
#include <cstring>

#include "bench/relay/Ends.h"
#include "bench/relay/Routed.h"
#include "platform/Poll.h"
#include "platform/Socket.h"
#include "rv/message/rvSubject.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Negotiation.h"

namespace kvx::bench {
namespace {

using Buffer = std::vector<std::uint8_t>;

constexpr std::size_t kBlock = 64 * 1024;        // bytes of one write
constexpr std::size_t kReadBuffer = 256 * 1024;  // bytes

Buffer encodedSubject(const std::string& text) {
    Buffer bytes(wire::kSubjectCapacity);
    bytes.resize(static_cast<std::size_t>(
        rvSubject_FromText(bytes.data(), wire::kSubjectCapacity, text.c_str())));
    return bytes;
}

Buffer busMessage(const std::string& subject, const Buffer& payload) {
    const auto size = static_cast<rvmsg_Size>(payload.size());
    const auto built =
        wire::buildData(encodedSubject(subject), nullptr, 0, {RVMSG_OPAQUE, size, payload.data()});
    const wire::Bytes bytes = built.message.view();
    return {bytes.begin(), bytes.end()};
}

Buffer routedMessage(const std::string& subject, const Buffer& payload, bool isListen = false) {
    Buffer bytes(routed::kHeader + subject.size() + payload.size());
    std::ranges::copy(payload, std::ranges::copy(subject, bytes.begin() + routed::kHeader).out);
    storeBig32(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    const auto length = static_cast<std::uint32_t>(subject.size());
    storeBig32(bytes.data() + 4, length | (isListen ? routed::kListen : 0));
    return bytes;
}

// A message of `size` bytes on the wire whose payload is its end.
Buffer messageOf(Way way, const std::string& subject, std::size_t size) {
    if (way == Way::Relay) return Buffer(size);
    Buffer payload;
    for (;;) {
        payload.push_back(0);
        Buffer message =
            way == Way::Router ? routedMessage(subject, payload) : busMessage(subject, payload);
        if (message.size() == size) return message;
        require(message.size() < size, "make a message of that size");
    }
}

std::size_t payloadAt(Way way, const std::string& subject) {
    switch (way) {
        case Way::Relay:
            return 0;
        case Way::Router:
            return routed::kHeader + subject.size();
        default:
            return busMessage(subject, {0}).size() - 1;
    }
}

class Socket {
  public:
    explicit Socket(std::uint16_t port) {
        int error = 0;
        socket_ = platform::createTcpSocket(error);
        platform::setNoDelay(socket_.get(), true);
        const platform::Endpoint broker{platform::kLoopbackAddress, port};
        require(platform::connectSocket(socket_.get(), broker) == 0, "connect");
    }

    void send(wire::Bytes bytes) const {
        while (!bytes.empty()) {
            const auto sent = platform::sendSome(socket_.get(), std::as_bytes(bytes));
            require(sent.error == 0, "send");
            bytes = bytes.subspan(sent.bytes);
        }
    }

    std::size_t receive(std::uint8_t* to, std::size_t room) const {
        const auto got =
            platform::receiveSome(socket_.get(), {reinterpret_cast<std::byte*>(to), room});
        require(got.bytes != 0, "receive: the broker has closed");
        return got.bytes;
    }
    void receiveAll(std::uint8_t* to, std::size_t count) const {
        for (std::size_t got = 0; got < count;) got += receive(to + got, count - got);
    }

    // Opens a session of rvd.
    void introduce() const {
        wire::GreetingBytes greeting{};
        receiveAll(greeting.data(), greeting.size());
        send(wire::encode(wire::Greeting{0, wire::kProtocolV4, 1}));
        send(wire::encode(wire::clientStep(readBlock()).block));
        (void)readBlock();
        send(wire::buildInit({"bench", nullptr, "bench", "", nullptr, {}}).message.view());
        Buffer reply(kHeaderBytes);
        receiveAll(reply.data(), reply.size());
        reply.resize(loadBig32(reply.data()));
        receiveAll(reply.data() + kHeaderBytes, reply.size() - kHeaderBytes);
        send(wire::buildInit({"bench", "BENCH.1", "bench", "", nullptr, {}}).message.view());
    }

    // Returns once the listens are in force. Nobody else may listen to the last of them.
    void listen(Way way, const Subjects& subjects) const {
        if (way == Way::Relay || subjects.empty()) return;
        Buffer listens;
        for (const std::string& subject : subjects) append(listens, way, subject);
        send(listens);
        std::size_t echoes = way == Way::Router ? listens.size() : 0;
        if (way == Way::Raw) {
            const Buffer echo = busMessage(subjects.back(), {0});
            send(echo);
            echoes = echo.size();
        }
        Buffer back(echoes);
        receiveAll(back.data(), back.size());
    }

    [[nodiscard]] platform::SocketHandle handle() const { return socket_.get(); }

  private:
    static void append(Buffer& listens, Way way, const std::string& subject) {
        if (way == Way::Router) {
            const Buffer message = routedMessage(subject, {}, true);
            listens.insert(listens.end(), message.begin(), message.end());
        } else {
            const auto built = wire::buildListen(encodedSubject(subject), nullptr, 0);
            const wire::Bytes message = built.message.view();
            listens.insert(listens.end(), message.begin(), message.end());
        }
    }

    wire::ParameterBlock readBlock() const {
        wire::ParameterBytes block{};
        receiveAll(block.data(), block.size());
        return wire::decodeParameters(block);
    }

    platform::Socket socket_;
};

class RawEnds : public Ends {
  public:
    RawEnds(Way way, const Setup& setup, bool checksOrder) : Ends(setup, checksOrder), way_(way) {
        for (const Subjects& subjects : setup.listens) connect(subjects);
        for (const std::string& target : setup.targets) build(target);
        // Whole blocks of them, where they all go to one subject.
        while (count_ != 0 && built_.size() < kBlock) build(setup.targets[count_ % targets()]);
        const std::string& any = setup.targets.empty() ? setup.listens[0].back() : setup.targets[0];
        payloadAt_ = payloadAt(way, any);
    }

    void send(std::size_t connection, Stamp stamp) override {
        std::memcpy(built_.data() + payloadAt_, &stamp, sizeof stamp);
        connections_[connection].socket.send({built_.data(), setup().size});
    }

    void stream(std::size_t connection, std::uint32_t first, std::size_t count) override {
        const std::size_t batch = std::max<std::size_t>(1, kBlock / setup().size);
        Stamp stamp{static_cast<std::uint32_t>(setup().firstSender + connection), first, 0};
        Connection& from = connections_[connection];
        while (count > 0) {
            const std::size_t some = std::min({count, batch, count_ - from.next});
            std::uint8_t* const block = built_.data() + from.next * setup().size;
            for (std::size_t i = 0; i < some; ++i, ++stamp.number) {
                std::memcpy(block + i * setup().size + payloadAt_, &stamp, sizeof stamp);
            }
            from.socket.send({block, some * setup().size});
            from.next = (from.next + some) % count_;
            count -= some;
        }
    }

  protected:
    void run() override {
        if (connections_.size() == 1) {
            while (!isDone()) take(0);
            return;
        }
        while (!isDone()) {
            poll_.wait(platform::kForever);
            for (std::size_t i = 0; i < poll_.size() && !isDone(); ++i) {
                if (poll_.slot(i).ready != 0) take(connectionOf(poll_.slot(i).socket));
            }
        }
    }

  private:
    struct Connection {
        explicit Connection(std::uint16_t port) : socket(port), buffer(kReadBuffer) {}
        Socket socket;
        Buffer buffer;
        std::size_t filled = 0;
        std::size_t next = 0;  // of the built messages
    };

    void connect(const Subjects& subjects) {
        Connection& made = connections_.emplace_back(setup().port);
        if (way_ == Way::Raw) made.socket.introduce();
        Subjects all = subjects;
        if (!subjects.empty()) all.push_back(newSubject());
        made.socket.listen(way_, all);
        require(poll_.add(made.socket.handle(), platform::kReadable), "wait for the socket");
    }

    [[nodiscard]] std::size_t connectionOf(platform::SocketHandle socket) const {
        std::size_t i = 0;
        while (connections_[i].socket.handle() != socket) ++i;
        return i;
    }
    [[nodiscard]] std::size_t targets() const { return setup().targets.size(); }
    void build(const std::string& target) {
        const Buffer message = messageOf(way_, target, setup().size);
        built_.insert(built_.end(), message.begin(), message.end());
        ++count_;
    }

    void take(std::size_t connection) {
        Connection& from = connections_[connection];
        const std::size_t size = setup().size;
        from.filled +=
            from.socket.receive(from.buffer.data() + from.filled, from.buffer.size() - from.filled);
        const std::uint8_t* at = from.buffer.data();
        for (; from.filled >= size && !isDone(); from.filled -= size, at += size) {
            if (way_ != Way::Relay && loadBig32(at) != size) fail("another length");
            heard(connection, at + payloadAt_);
        }
        std::memmove(from.buffer.data(), at, from.filled);
    }

    const Way way_;
    std::vector<Connection> connections_;
    platform::PollSet poll_;
    Buffer built_;           // messages for the targets in turn
    std::size_t count_ = 0;  // of them
    std::size_t payloadAt_ = 0;
};

}  // namespace

std::unique_ptr<Ends> connectRaw(Way way, const Setup& setup, bool checksOrder) {
    return std::make_unique<RawEnds>(way, setup, checksOrder);
}

struct IdleSession::Link {
    explicit Link(std::uint16_t port) : socket(port) {}
    Socket socket;
};

IdleSession::IdleSession(std::uint16_t port, const Subjects& subjects)
    : link_(std::make_unique<Link>(port)) {
    link_->socket.introduce();
    link_->socket.listen(Way::Raw, subjects);
}
IdleSession::IdleSession(IdleSession&&) noexcept = default;
IdleSession::~IdleSession() = default;

}  // namespace kvx::bench
