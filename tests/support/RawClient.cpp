#include "tests/support/RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "rv/message/SubjectView.h"
#include "rv/message/rvSubject.h"
#include "rv/wire/Fields.h"
#include "rv/wire/Negotiation.h"

namespace kvx::test {
namespace {

constexpr int kPatienceMs = 60'000;  // only a hang takes this long
constexpr std::size_t kChunk = 64 * 1024;

void await(int socket, short events) {
    pollfd entry{socket, events, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, kPatienceMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) throw std::runtime_error("the daemon is silent");
}

}  // namespace

RawClient::RawClient(std::uint16_t port, int receiveBuffer) : buffer_(kChunk) {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (receiveBuffer > 0) {
        setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(socket_);
        throw std::runtime_error("cannot connect");
    }
}

RawClient::RawClient(RawClient&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)),
      buffer_(std::move(other.buffer_)),
      reader_(std::move(other.reader_)),
      early_(std::move(other.early_)),
      markers_(other.markers_) {}

RawClient::~RawClient() {
    disconnect();
}

void RawClient::disconnect() {
    if (socket_ >= 0) close(std::exchange(socket_, -1));
}

RawClient RawClient::session(std::uint16_t port, const char* service, const char* network,
                             std::uint32_t version) {
    RawClient client(port);
    client.negotiate(version);
    const auto reply = client.announce(service, network);
    if (reply.code != 0) throw std::runtime_error("refused with " + std::to_string(reply.code));
    client.confirm(service, network, ("RAW." + std::to_string(client.localPort())).c_str());
    return client;
}

std::uint16_t RawClient::localPort() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

wire::Greeting RawClient::readGreeting() {
    wire::GreetingBytes bytes{};
    receive(bytes.data(), bytes.size());
    return wire::decodeGreeting(bytes);
}

void RawClient::answer(std::uint32_t version, std::uint32_t first) {
    send(wire::encode(wire::Greeting{first, version, 1}));
}

wire::ParameterBlock RawClient::readBlock() {
    wire::ParameterBytes bytes{};
    receive(bytes.data(), bytes.size());
    return wire::decodeParameters(bytes);
}

void RawClient::sendBlock(const wire::ParameterBlock& block) {
    send(wire::encode(block));
}

void RawClient::negotiate(std::uint32_t version) {
    readGreeting();
    answer(version);
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

wire::Reply RawClient::announce(const char* service, const char* network) {
    send(wire::buildInit({"tester", nullptr, service, network, nullptr, {}}));
    std::vector<std::uint8_t> bytes;
    while (expectFrame(&bytes) != wire::FrameKind::Message) {
    }
    return wire::readReply(bytes);
}

void RawClient::confirm(const char* service, const char* network, const char* name) {
    send(wire::buildInit({"tester", name, service, network, "_INBOX.CONTROL", {}}));
}

void RawClient::listen(const std::string& subject) {
    send(wire::buildListen(encodedSubject(subject), nullptr, 0));
}

void RawClient::cancel(const std::string& subject) {
    send(wire::buildCancel(encodedSubject(subject), 0));
}

void RawClient::publish(const std::string& subject, const std::string& text,
                        const std::string& reply) {
    send(dataMessage(subject, text, reply));
}

void RawClient::settle() {
    const std::string marker =
        "MARKER." + std::to_string(localPort()) + '.' + std::to_string(++markers_);
    listen(marker);
    publish(marker, "");
    cancel(marker);
    std::vector<std::uint8_t> bytes;
    for (;;) {
        if (expectFrame(&bytes) != wire::FrameKind::Message) continue;
        Received received = readData(bytes);
        if (received.subject == marker) return;
        early_.push_back(std::move(received));
    }
}

void RawClient::send(wire::Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) throw std::runtime_error("the daemon has closed");
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
}

std::size_t RawClient::receiveSome(std::uint8_t* to, std::size_t room) {
    await(socket_, POLLIN);
    const ssize_t count = recv(socket_, to, room, 0);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

void RawClient::receive(std::uint8_t* to, std::size_t count) {
    while (count > 0) {
        const std::size_t got = receiveSome(to, count);
        if (got == 0) throw std::runtime_error("the daemon has closed");
        to += got;
        count -= got;
    }
}

wire::FrameKind RawClient::expectFrame(std::vector<std::uint8_t>* bytes) {
    for (;;) {
        const wire::Frame frame = reader_.next();
        if (frame.kind != wire::FrameKind::None) {
            if (bytes != nullptr) bytes->assign(frame.bytes.begin(), frame.bytes.end());
            return frame.kind;
        }
        const std::size_t got = receiveSome(buffer_.data(), buffer_.size());
        if (got == 0) throw std::runtime_error("the daemon has closed");
        reader_.feed({buffer_.data(), got});
    }
}

Received RawClient::expectNext() {
    if (!early_.empty()) {
        Received first = std::move(early_.front());
        early_.pop_front();
        return first;
    }
    std::vector<std::uint8_t> bytes;
    while (expectFrame(&bytes) != wire::FrameKind::Message) {
    }
    return readData(bytes);
}

bool RawClient::expectClosed() {
    bool noticed = false;
    for (;;) {
        const wire::Frame frame = reader_.next();
        if (frame.kind == wire::FrameKind::Broken) throw std::runtime_error("broken stream");
        if (frame.kind == wire::FrameKind::Close) noticed = true;
        if (frame.kind != wire::FrameKind::None && !noticed) continue;
        const std::size_t got = receiveSome(buffer_.data(), buffer_.size());
        if (got == 0) return noticed;
        reader_.feed({buffer_.data(), got});
    }
}

void RawClient::closeGracefully() {
    send(wire::kCloseBlock);
    if (!expectClosed()) throw std::runtime_error("no close notice");
    disconnect();
}

std::vector<std::uint8_t> encodedSubject(const std::string& text) {
    std::vector<std::uint8_t> encoded(wire::kSubjectCapacity);
    const int length = rvSubject_FromText(encoded.data(), wire::kSubjectCapacity, text.c_str());
    if (length < 0) throw std::runtime_error("no subject: " + text);
    encoded.resize(static_cast<std::size_t>(length));
    return encoded;
}

std::vector<std::uint8_t> dataMessage(const std::string& subject, const std::string& text,
                                      const std::string& reply) {
    const auto size = static_cast<rvmsg_Size>(text.size() + 1);
    const auto built = wire::buildData(encodedSubject(subject), reply.c_str(), 0,
                                       {RVMSG_STRING, size, text.c_str()});
    const wire::Bytes bytes = built.message.view();
    return {bytes.begin(), bytes.end()};
}

Received readData(wire::Bytes message) {
    Received received;
    received.bytes.assign(message.begin(), message.end());
    const wire::Bytes subject = wire::readRouting(message).subject;
    if (const auto view = kvx::SubjectView::parse(subject.data(), subject.size())) {
        received.subject = view->text();
    }
    const auto textOf = [&message](const char* name) {
        const auto field = wire::findField(message, name);
        const auto text = field ? wire::textOf(*field) : std::nullopt;
        return text ? std::string(*text) : std::string();
    };
    received.reply = textOf(wire::field::kReturn);
    received.text = textOf(wire::field::kData);
    return received;
}

}  // namespace kvx::test
