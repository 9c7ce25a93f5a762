#pragma once

#include <uv.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "rvd/Batch.h"
#include "rvd/Log.h"
#include "rvd/Outbox.h"
#include "rvd/Peer.h"
#include "rvd/Router.h"

namespace kvx::rvd {

class Connection;

/// Shared by the connections of one daemon; must outlive them.
struct ConnectionContext {
    uv_loop_t& loop;
    const Log& log;
    Counters& counters;
    OutboxPool& pool;
    Router& router;
    Batch& batch;
    std::size_t queueLimit;     ///< queued bytes per session
    std::uint32_t hostAddress;  ///< host byte order; reported to local clients as their own
    std::function<void(Connection&)> gone;  ///< libuv has closed the handle: may be deleted
};

/// One TCP connection: its socket, its peer's protocol, its queue and its session.
///
/// Carries out the peer's actions. The queue is written when the batch of one read ends. Loop
/// thread only.
class Connection final : public PeerActions, public Receiver, public BatchMember {
  public:
    /// Time limit for writing the queue of a closing connection.
    static constexpr platform::Milliseconds kEndingMs = 5'000;

    explicit Connection(const ConnectionContext& context);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Accepts the next connection of `listener`. False on failure; call `destroy` in either case
    /// at the end.
    [[nodiscard]] bool accept(uv_stream_t* listener);

    void tick();
    /// Ends the connection because the daemon ends.
    void shutDown();
    /// Closes the socket now; `ConnectionContext::gone` follows.
    void destroy();

    // Receiver: writes first when queueing the message would drop another one.
    void deliver(const PayloadRef& message) override;

    // BatchMember
    void flush() override;

    // PeerActions
    void send(wire::Bytes bytes) override;
    void join(std::string_view service, std::string_view network) override;
    bool isIn(std::string_view service, std::string_view network) override;
    bool listen(SubjectView subject) override;
    void cancel(SubjectView subject) override;
    void publish(SubjectView subject, const PayloadRef& message) override;
    void close(CloseReason reason) override;

  private:
    // In the order of their transitions; see the head of Connection.cpp.
    enum class State : std::uint8_t { Open, Draining, FinSent, PeerEnded, Failed, Closed };

    void enter(State state);
    void onRead(ssize_t count, const char* bytes);
    void onWritten(int status);
    void writeWaiting();
    bool writeSome();
    void writeFront();
    void sendFin();
    void fail(int status);
    void leaveSession();
    void noteDeliveries();
    void logLosses();
    [[nodiscard]] PeerAddress peerAddress() const;
    [[nodiscard]] platform::Milliseconds now() const;
    [[nodiscard]] uv_stream_t* stream() { return reinterpret_cast<uv_stream_t*>(&tcp_); }

    const ConnectionContext& context_;

    State state_ = State::Open;
    platform::Milliseconds endBy_ = 0;  // deadline of a connection that is not open
    uv_tcp_t tcp_{};
    uv_write_t write_{};
    uv_shutdown_t shutdown_{};
    Outbox outbox_;
    std::unique_ptr<Peer> peer_;
    Router::Session* session_ = nullptr;
    std::size_t writingBytes_ = 0;  // bytes of the queue in write_; 0: no write is pending in libuv
    std::uint64_t lossesLogged_ = 0;
    std::uint64_t deliveriesSeen_ = 0;  // of messages, up to the last tick
    std::string name_;                  // "a.b.c.d:port", for the log
};

}  // namespace kvx::rvd
