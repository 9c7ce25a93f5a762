#pragma once

#include <uv.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"
#include "rvd/Admission.h"
#include "rvd/Answers.h"
#include "rvd/Batch.h"
#include "rvd/BusySubjects.h"
#include "rvd/Delays.h"
#include "rvd/Facts.h"
#include "rvd/Line.h"
#include "rvd/Outbox.h"
#include "rvd/Pace.h"
#include "rvd/Peer.h"
#include "rvd/Recorder.h"
#include "rvd/Reports.h"
#include "rvd/Router.h"
#include "rvd/StreamSocket.h"

namespace kvx::rvd {

class Connection;

/// Shared by the connections of one daemon; must outlive them.
struct ConnectionContext {
    uv_loop_t& loop;
    platform::Log& log;
    Counters& counters;
    MemoryAccount& account;
    Router& router;
    Batch& batch;
    Line& line;
    BusySubjects& busy;
    Delays& delays;
    const std::unique_ptr<Recorder>& recorder;  ///< null: nothing is recorded
    const Reports& reports;
    std::size_t queueLimit;     ///< queued bytes per session
    const bool& isPaused;       ///< neither reads nor writes: the daemon is being replaced
    std::size_t stepsAtOnce;    ///< of a match, between two looks at the clock
    std::uint32_t hostAddress;  ///< host byte order; reported to local clients as their own
    const Admission& admission;
    const std::vector<Network>& statusFor;  ///< other hosts that may ask for reports
    /// Throws `std::bad_alloc` when there is no memory for watching that descriptor.
    std::function<void(int descriptor)> willWatch;
    std::function<void(Connection&)> announced;   ///< it has joined a space
    std::function<void(Connection&)> notAllowed;  ///< it may not join one
    std::function<void(Connection&)> closed;      ///< its socket is closed
    /// libuv has closed its handle: it may be deleted, after `clearUp` when it `isHeavy`.
    std::function<void(Connection&)> gone;
};

/// One connection: its socket, its peer's protocol, its queue and its session.
///
/// Carries out the peer's actions. The queue is written when the batch of one read ends. Who sends
/// or takes more than fits into a slice goes on in the line, and is not read meanwhile. Loop thread
/// only.
class Connection final : private MemoryHolder,
                         public PeerActions,
                         public Receiver,
                         public BatchMember,
                         private Worker {
  public:
    /// Bytes written by one system call, and by one in the turn of another connection among many.
    static constexpr std::size_t kWriteAtOnce = 256 * 1024;
    static constexpr std::size_t kWriteForOthers = 64 * 1024;
    /// Time limit for writing the queue of a closing connection.
    static constexpr platform::Milliseconds kEndingMs = 5'000;

    /// Bytes.
    static constexpr std::size_t kFreedAtOnce = 256 * 1024;
    /// Characters of a session's name in the log.
    static constexpr std::size_t kNameLength = 128;

    /// `number`: of all connections, in the order of accepting.
    Connection(const ConnectionContext& context, std::uint64_t number);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    [[nodiscard]] std::uint64_t number() const override { return number_; }

    /// Accepts the next connection of `listener`. False on failure; call `destroy` in either case
    /// at the end. Comes first.
    [[nodiscard]] bool accept(StreamSocket& listener);
    /// Accepts it and does nothing with it.
    void refuse(StreamSocket& listener);

    /// Its peer, for people: "a.b.c.d:port" or "unix pid N uid N".
    [[nodiscard]] const std::string& peerName() const { return name_; }
    /// The process and user at the other end of a unix socket, told by the system; nothing for TCP.
    [[nodiscard]] std::optional<platform::PeerIdentity> peerIdentity() const {
        return socket_.peerIdentity();
    }

    [[nodiscard]] std::size_t waitingMessages() const { return outbox_.waitingMessages(); }

    /// Whether it holds so much that freeing that takes long.
    [[nodiscard]] bool isHeavy() const { return held() > kFreedAtOnce; }
    /// Frees what one that is gone has held, until the slice is over. True when nothing is left.
    bool clearUp();

    /// About once a second; `elapsed`: since the last time.
    void tick(platform::Milliseconds elapsed);
    [[nodiscard]] SessionFacts facts() const;

    // For the daemon that takes this one's place; see Handover.cpp.
    /// Stops reading.
    void pause();
    /// Whether nothing is under way that cannot be handed over; `withAnswers`: nor an answer to an
    /// inquiry. It may never be so while it reads.
    [[nodiscard]] bool isQuiet(bool withAnswers) const;
    /// Whether it follows the interest of its space: it is restored behind all that do not.
    [[nodiscard]] bool follows() const { return session_ != nullptr && session_->follows(); }
    [[nodiscard]] int descriptor() const { return socket_.descriptor(); }
    void save(StateWriter& state);
    /// In place of `accept`. Throws `StateError` or `std::bad_alloc`: call `destroy` then.
    void begin(StreamSocket::Kind kind) { socket_.begin(context_.loop, kind, this); }
    void restore(StateReader& state, platform::Descriptor socket);
    /// Reads and writes, again or for the first time.
    void resume();

    /// Ends the connection because the daemon ends.
    void shutDown();
    /// Closes the socket now; `ConnectionContext::gone` follows.
    void destroy();

    // Receiver: writes first when queueing the message would drop another one. Needs no memory.
    void deliver(const PayloadRef& message) override;
    void dismiss() override;
    void wake() noexcept override { context_.batch.add(*this); }

    // BatchMember
    void flush() override;
    void outOfMemory() noexcept override;

    // PeerActions
    void send(wire::Bytes bytes) override;
    bool mayJoin() override { return isAllowed_; }
    void join(std::string_view service, std::string_view network) override;
    void named(std::string_view session) override { sessionName_ = session.substr(0, kNameLength); }
    bool isIn(std::string_view service, std::string_view network) override {
        return session_ != nullptr && session_->isIn(service, network);
    }
    bool listen(SubjectView subject) override;
    void cancel(SubjectView subject) override;
    void publish(SubjectView subject, const PayloadRef& message) override;
    bool mayReportLoss() override { return session_ != nullptr && session_->isTold(); }
    void reportLoss(SubjectView subject, std::uint64_t lost, const PayloadRef& message) override;
    void ask(const Inquiry& inquiry) override;
    bool mayGoOn() override;
    void close(CloseReason reason) override;

  private:
    // Worker
    void work() override;

    // In the order of their transitions; see the head of Connection.cpp.
    enum class State : std::uint8_t { Open, Draining, FinSent, PeerEnded, Failed, Closed };

    // MemoryHolder
    bool giveUp() override;

    /// The message being routed, or the notice of a loss that was reported by one.
    struct Routing {
        Routing(Router& router, const Router::Session& from, SubjectView subject,
                const PayloadRef& routed, PayloadRef lossNotice);
        [[nodiscard]] SubjectView subject() const {
            return SubjectView::trusted(message->bytes().data() + subjectAt);
        }

        Router::Match match;
        PayloadRef message;
        PayloadRef notice;      // null: the message itself is delivered
        std::size_t subjectAt;  // in the message, whose bytes move when they are kept
        BusySubjects::Place counted = 0;
        std::size_t reached = 0;  // sessions
    };

    template <class Step>
    void guard(Step&& step) noexcept;
    bool start();
    void meetPeer();
    void enter(State state);
    [[nodiscard]] uv_buf_t readBuffer();
    void onRead(ssize_t count, const char* bytes);
    void trim();
    void takeBytes();
    void goOnRouting();
    [[nodiscard]] BusySubjects::Place watch(SubjectView subject, const PayloadRef& message);
    void route();
    [[nodiscard]] bool mayTell() const;
    void tellMore();
    [[nodiscard]] bool mayAnswer() const;
    void answer();
    void refreshTold();
    void handOn(const PayloadRef& message, std::span<Receiver* const> receivers);
    [[nodiscard]] bool hasMuch() const;
    void keepRest();
    void endBatch(std::size_t read = 0);
    void chargeIncoming();
    [[nodiscard]] bool startReading();
    void onWritten(int status);
    void noteWritten();
    [[nodiscard]] bool mayWrite() const;
    void writeWaiting(bool isOwnTurn);
    std::size_t writeSome(std::size_t most);
    void endIfDone();
    void deliverToFull(const PayloadRef& message);
    void writeFront();
    void sendFin();
    void fail(int status);
    void end(CloseReason reason, LossCause cause);
    void leaveSession();
    void notePace(const Pace::Look& look);
    void logEnd(const char* reason);
    [[nodiscard]] std::string who() const;
    [[nodiscard]] platform::Milliseconds now() const;
    [[nodiscard]] uv_stream_t* stream() { return socket_.stream(); }

    const ConnectionContext& context_;
    const std::uint64_t number_;

    State state_ = State::Open;
    platform::Milliseconds endBy_ = 0;  // deadline of a connection that is not open
    StreamSocket socket_;
    std::unique_ptr<uv_write_t> write_;        // pending in libuv
    std::unique_ptr<uv_shutdown_t> shutdown_;  // likewise
    Outbox outbox_;
    std::unique_ptr<Peer> peer_;
    wire::Bytes arrived_;             // bytes that the peer has not processed
    Nanoseconds arrivedAt_ = 0;       // as of the line
    std::vector<std::uint8_t> rest_;  // those that wait for a further slice
    bool isAllowed_ = false;          // to join a space
    bool mayAsk_ = false;             // for reports
    bool isReading_ = false;
    bool isTrimming_ = false;     // more waits than may
    std::uint64_t readTurn_ = 0;  // the turn of the last read
    Router::Session* session_ = nullptr;
    std::unique_ptr<Routing> routing_;  // unless it has reached everybody
    bool isDismissed_ = false;
    std::size_t writingBytes_ = 0;  // bytes of the queue in write_; 0: no write is pending in libuv
    Pace pace_;                     // as of the last tick
    platform::Milliseconds acceptedAt_;
    Flow published_;
    std::uint64_t publishedBefore_ = 0;  // messages, at the last tick
    std::uint64_t publishedRate_ = 0;    // a second, before that
    std::unique_ptr<Answers> answers_;   // null: nothing was asked
    std::string name_;                   // `peerName`
    std::string sessionName_;            // of the init message, or its beginning
};

}  // namespace kvx::rvd
