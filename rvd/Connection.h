#pragma once

#include <uv.h>

#include <memory>
#include <string>
#include <string_view>

#include "rvd/Outbox.h"
#include "rvd/Peer.h"
#include "rvd/Router.h"

namespace kvx::rvd {

class Server;

/// One TCP connection: its socket, its peer's protocol, its queue and its session.
///
/// Carries out what the peer asks for. What routing adds to the queue is written when the server
/// ends the batch of one read (`flush`), so that many messages go out in one system call.
class Connection final : public PeerActions {
  public:
    explicit Connection(Server& server);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Takes the next connection of `listener`. False when there is none to take; `destroy` is due
    /// in either case once the connection is over.
    [[nodiscard]] bool accept(uv_stream_t* listener);

    /// Queues a routed message. Writes first when it would otherwise cost another one its place.
    void deliver(const PayloadRef& message);
    /// Writes what waits until the socket takes no more.
    void flush();
    void tick(platform::Milliseconds now);
    void shutDown();
    /// Closes the socket now. The server forgets the connection when libuv has let go of it.
    void destroy();

    /// The socket has failed or the peer does not read its replies: `destroy` is due.
    [[nodiscard]] bool failed() const { return failed_; }

    bool dirty = false;  ///< stands in the server's list of connections to flush

    // PeerActions
    void send(wire::Bytes bytes) override;
    void join(std::string_view service, std::string_view network) override;
    bool isIn(std::string_view service, std::string_view network) override;
    bool listen(SubjectView subject) override;
    void cancel(SubjectView subject) override;
    void publish(SubjectView subject, const PayloadRef& message) override;
    void close(CloseReason reason) override;

  private:
    void onRead(ssize_t count, const char* bytes);
    void onWritten(int status);
    bool writeSome();
    void writeFront();
    void endWhenFlushed();
    void beginEnding();
    void leaveSession();
    void fail(int status);
    void noteDeliveries(platform::Milliseconds now);
    void logLosses();
    [[nodiscard]] PeerAddress peerAddress() const;
    [[nodiscard]] uv_stream_t* stream() { return reinterpret_cast<uv_stream_t*>(&tcp_); }

    // Constant after construction.
    Server& server_;

    uv_tcp_t tcp_{};
    uv_write_t write_{};
    uv_shutdown_t shutdown_{};
    Outbox outbox_;
    std::unique_ptr<Peer> peer_;
    Router::Session* session_ = nullptr;
    bool writing_ = false;          // write_ is with libuv
    std::size_t writingBytes_ = 0;  // how much of the queue it covers
    bool ending_ = false;           // what waits is written out, input is thrown away
    bool peerEnded_ = false;        // nothing more comes from the peer
    bool finSent_ = false;
    bool failed_ = false;
    bool destroyed_ = false;
    platform::Milliseconds endBy_ = 0;  // when an ending connection is closed at the latest
    std::uint64_t lossesLogged_ = 0;
    std::uint64_t deliveriesSeen_ = 0;  // of messages, up to the last tick
    std::string name_;                  // "a.b.c.d:port", for the log
};

}  // namespace kvx::rvd
