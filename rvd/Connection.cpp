// The life of a connection:
//
//   open ----close(reason) or end of input----> ending ----all written----> FIN sent ---->
//   destroyed
//     \________________ socket error, unread replies, silence while ending ______________/
//
// An ending connection belongs to no session any more. What waits in its queue is still written,
// its input is thrown away, and after the last byte the sending side is shut down; the socket is
// closed when the peer has closed too. Closing at once would let the system answer unread input
// with a reset that can overtake the close notice. All of this has `Server::kEndingMs`.
//
// Writing: the socket is tried directly as long as it takes everything. When it does not, the first
// waiting entry is handed to libuv, which waits for room; everything behind it stays in the queue,
// where it can still be dropped.

#include "rvd/Connection.h"

#include <array>
#include <new>

#include "platform/Socket.h"
#include "rvd/Server.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kWriteSlices = 512;  // pieces handed to one system call
constexpr unsigned kLoopbackNet = 127;

uv_buf_t asBuffer(wire::Bytes bytes) {
    auto* base = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
    return uv_buf_init(base, static_cast<unsigned>(bytes.size()));
}

Connection* connectionOf(void* data) {
    return static_cast<Connection*>(data);
}

sockaddr_in peerName(const uv_tcp_t& tcp) {
    sockaddr_in name{};
    int length = sizeof name;
    uv_tcp_getpeername(&tcp, reinterpret_cast<sockaddr*>(&name), &length);
    return name;
}

}  // namespace

Connection::Connection(Server& server)
    : server_(server), outbox_(server.options().queueLimit, server.pool(), server.counters()) {
    uv_tcp_init(server_.loop(), &tcp_);
    tcp_.data = this;
    write_.data = this;
    server_.counters().add(Counter::ConnectionsOpen);
}

Connection::~Connection() {
    server_.counters().subtract(Counter::ConnectionsOpen);
}

bool Connection::accept(uv_stream_t* listener) {
    if (uv_accept(listener, stream()) != 0) return false;
    uv_tcp_nodelay(&tcp_, 1);
    const sockaddr_in name = peerName(tcp_);
    name_ = platform::dottedAddress(ntohl(name.sin_addr.s_addr)) + ':' +
            std::to_string(ntohs(name.sin_port));
    peer_ = std::make_unique<Peer>(peerAddress(), *this, server_.counters());
    const int status = uv_read_start(
        stream(),
        [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
            *buffer = connectionOf(handle->data)->server_.readBuffer();
        },
        [](uv_stream_t* from, ssize_t count, const uv_buf_t* buffer) {
            connectionOf(from->data)->onRead(count, buffer->base);
        });
    if (status != 0) return false;
    server_.counters().add(Counter::ConnectionsAccepted);
    server_.log().debug(name_ + " connected");
    peer_->start(server_.now());
    return true;
}

PeerAddress Connection::peerAddress() const {
    const sockaddr_in name = peerName(tcp_);
    const bool local = ntohl(name.sin_addr.s_addr) >> 24U == kLoopbackNet;
    return {local ? htonl(server_.hostAddress()) : name.sin_addr.s_addr, name.sin_port};
}

void Connection::onRead(ssize_t count, const char* bytes) {
    if (count == UV_EOF) {
        peerEnded_ = true;
        beginEnding();
    } else if (count < 0) {
        fail(static_cast<int>(count));
    } else if (!ending_) {
        try {
            peer_->receive(
                {reinterpret_cast<const std::uint8_t*>(bytes), static_cast<std::size_t>(count)},
                server_.now());
        } catch (const std::bad_alloc&) {
            fail(UV_ENOMEM);
        }
    }
    server_.endBatch();
}

void Connection::deliver(const PayloadRef& message) {
    if (outbox_.wouldDrop(message->size())) flush();
    outbox_.pushMessage(message);
    server_.markDirty(*this);
}

void Connection::flush() {
    if (destroyed_ || failed_) return;
    while (!writing_ && !outbox_.empty() && writeSome()) {
    }
    if (ending_ && !writing_ && outbox_.empty()) endWhenFlushed();
}

// One system call. True when the socket took all that was offered.
bool Connection::writeSome() {
    std::array<wire::Bytes, kWriteSlices> slices;
    std::array<uv_buf_t, kWriteSlices> buffers;
    const std::size_t count = outbox_.gather(slices);
    if (count == 0) return false;
    std::size_t offered = 0;
    for (std::size_t i = 0; i < count; ++i) {
        buffers[i] = asBuffer(slices[i]);
        offered += slices[i].size();
    }
    const int result = uv_try_write(stream(), buffers.data(), static_cast<unsigned>(count));
    if (result < 0 && result != UV_EAGAIN) {
        fail(result);
        return false;
    }
    const auto taken = static_cast<std::size_t>(result < 0 ? 0 : result);
    outbox_.written(taken);
    if (taken == offered) return true;
    writeFront();
    return false;
}

// Lets libuv write the first entry as soon as the socket has room.
void Connection::writeFront() {
    const wire::Bytes front = outbox_.pinFront();
    const uv_buf_t buffer = asBuffer(front);
    const int status = uv_write(&write_, stream(), &buffer, 1, [](uv_write_t* request, int result) {
        connectionOf(request->data)->onWritten(result);
    });
    if (status != 0) return fail(status);
    writing_ = true;
    writingBytes_ = front.size();
}

void Connection::onWritten(int status) {
    writing_ = false;
    if (destroyed_) return;
    if (status != 0) {
        fail(status);
    } else {
        outbox_.written(writingBytes_);
        server_.markDirty(*this);
    }
    server_.endBatch();
}

void Connection::tick(platform::Milliseconds now) {
    if (destroyed_) return;
    noteDeliveries(now);
    logLosses();
    if (!ending_) return peer_->tick(now);
    if (now >= endBy_) destroy();
}

void Connection::noteDeliveries(platform::Milliseconds now) {
    const std::uint64_t delivered = outbox_.totals().delivered;
    if (delivered != std::exchange(deliveriesSeen_, delivered)) peer_->tookMessages(now);
}

// At most one line a tick, however much is lost.
void Connection::logLosses() {
    const std::uint64_t dropped = outbox_.totals().dropped;
    if (dropped == lossesLogged_) return;
    server_.log().warning(name_ + " does not keep up: " + std::to_string(dropped - lossesLogged_) +
                          " messages dropped, " + std::to_string(dropped) + " in all");
    lossesLogged_ = dropped;
}

void Connection::shutDown() {
    if (!destroyed_) peer_->shutDown();
}

void Connection::beginEnding() {
    leaveSession();
    if (!ending_) endBy_ = server_.now() + Server::kEndingMs;
    ending_ = true;
    server_.markDirty(*this);
}

void Connection::endWhenFlushed() {
    if (peerEnded_) return destroy();
    if (finSent_) return;
    finSent_ = true;
    if (uv_shutdown(&shutdown_, stream(), [](uv_shutdown_t*, int) {}) != 0) destroy();
}

void Connection::leaveSession() {
    if (session_ != nullptr) server_.router().leave(*std::exchange(session_, nullptr));
}

void Connection::fail(int status) {
    if (failed_) return;
    failed_ = true;
    if (server_.log().enabled(LogLevel::Debug)) {
        server_.log().debug(name_ + " lost: " + uv_strerror(status));
    }
    server_.markDirty(*this);
}

void Connection::destroy() {
    if (destroyed_) return;
    destroyed_ = true;
    leaveSession();
    uv_close(reinterpret_cast<uv_handle_t*>(&tcp_), [](uv_handle_t* handle) {
        Connection* connection = connectionOf(handle->data);
        connection->server_.forget(connection);
    });
}

void Connection::send(wire::Bytes bytes) {
    if (!outbox_.pushControl(bytes)) return fail(UV_ENOBUFS);
    server_.markDirty(*this);
}

void Connection::join(std::string_view service, std::string_view network) {
    session_ = &server_.router().join(service, network, this);
    if (server_.log().enabled(LogLevel::Debug)) {
        server_.log().debug(name_ + " joins service '" + std::string(service) + "' network '" +
                            std::string(network) + "'");
    }
}

bool Connection::isIn(std::string_view service, std::string_view network) {
    return session_ != nullptr && session_->isIn(service, network);
}

bool Connection::listen(SubjectView subject) {
    return session_ == nullptr || server_.router().listen(*session_, subject);
}

void Connection::cancel(SubjectView subject) {
    if (session_ != nullptr) server_.router().cancel(*session_, subject);
}

void Connection::publish(SubjectView subject, const PayloadRef& message) {
    if (session_ != nullptr) server_.route(*session_, subject, message);
}

void Connection::close(CloseReason reason) {
    if (reason == CloseReason::TimedOut) server_.counters().add(Counter::ConnectionsTimedOut);
    if (reason != CloseReason::PeerClosed && reason != CloseReason::ShuttingDown &&
        reason != CloseReason::TimedOut) {
        server_.counters().add(Counter::ConnectionsFailed);
    }
    server_.log().debug(name_ + " ends: " + closeText(reason));
    beginEnding();
}

}  // namespace kvx::rvd
