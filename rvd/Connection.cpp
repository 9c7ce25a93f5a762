// The states of a connection:
//
// Open --close(reason)--> Draining --all written--> FinSent ------.
// \________________________\______________________ \__ end of input --> PeerEnded --all written-->
// Closed Failed (socket error, unread replies) is entered from any of these and lasts until the
// batch ends; a connection that is not open is closed after `kEndingMs`.
//
// Only an open connection has a session and reads its input. The queue of a draining one is still
// written, and after the last byte the sending side is shut down; the socket is closed when the
// peer has closed too. Closing at once would make the system answer unread input with a reset that
// can overtake the close notice.
//
// A connection may fail while messages are being routed, also its own; so it leaves its session and
// closes when the batch ends, and is freed when libuv has closed its handle.
//
// Writing: the queue is written directly as long as the socket takes everything. When it does not,
// the first entry is passed to libuv, which waits for room; the entries behind it stay in the
// queue, where they can still be dropped.
//
// Reading: once a turn of the loop, into a buffer that all share. What the peer has not processed
// when its slice is over is kept here, and the connection is not read until that is done.

#include "rvd/Connection.h"

#include <algorithm>
#include <array>
#include <new>

#include "platform/Socket.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kWriteSlices = 512;        // pieces per system call
constexpr std::size_t kReadBeside = 32 * 1024;   // bytes, while many others work
constexpr std::size_t kBytesPerStep = 4 * 1024;  // freed between looks at the clock
// To keep a message, and bytes of it, as of a common machine.
constexpr Nanoseconds kKeepTime = 100;
constexpr Nanoseconds kCopiedPerNanosecond = 8;
constexpr unsigned kLoopbackNet = 127;

// Memory of a connection that holds nothing: this object, its peer, an empty queue, and libuv's and
// the containers' part.
constexpr std::size_t kConnectionCost = sizeof(Connection) + sizeof(Peer) + 1'024;
static_assert(Router::kMaxListens == 262'144 && Router::kMaxSteps == 1'024,
              "rvReasons.h names them");

uv_buf_t asBuffer(wire::Bytes bytes) {
    auto* base = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
    return uv_buf_init(base, static_cast<unsigned>(bytes.size()));
}

Connection* connectionOf(void* data) {
    return static_cast<Connection*>(data);
}

// A client on this host is told the host's address, so that session names differ between hosts.
PeerAddress reportedAddress(platform::Endpoint peer, bool isNear, std::uint32_t host) {
    return {htonl(isNear ? host : peer.address), htons(peer.port)};
}

}  // namespace

Connection::Connection(const ConnectionContext& context, std::uint64_t number)
    : MemoryHolder(context.account),
      context_(context),
      number_(number),
      outbox_(context.queueLimit, *this, context.counters, &context.delays),
      acceptedAt_(now()) {
    charge(Holding::Connection, kConnectionCost);
    context_.counters.add(Counter::ConnectionsOpen);
}

Connection::~Connection() {
    context_.line.leave(*this);
    context_.counters.subtract(Counter::ConnectionsOpen);
}

platform::Milliseconds Connection::now() const {
    return static_cast<platform::Milliseconds>(uv_now(&context_.loop));
}

// States only go forward: a slower way of ending is ignored after a faster one.
void Connection::enter(State state) {
    if (state <= state_) return;
    if (state_ == State::Open) endBy_ = now() + kEndingMs;
    state_ = state;
    if (state != State::Failed) leaveSession();
    if (state != State::Closed) context_.batch.add(*this);
}

// No exception may pass libuv, which is C: without memory the connection ends.
template <class Step>
void Connection::guard(Step&& step) noexcept {
    try {
        step();
    } catch (const std::bad_alloc&) {
        outOfMemory();
    }
}

void Connection::outOfMemory() noexcept {
    arrived_ = {};
    if (state_ >= State::Failed) return;
    enter(State::Failed);
    outbox_.endsFor(Drop::Memory);
    context_.counters.add(Counter::ConnectionsEvicted);
    try {
        logEnd("no memory");
    } catch (const std::bad_alloc&) {  // the counter tells
    }
}

bool Connection::accept(StreamSocket& listener) {
    if (!socket_.accept(context_.loop, listener, this)) return false;
    bool isStarted = false;
    guard([&] { isStarted = start(); });
    return isStarted;
}

// Who is at the other end, and what it may do.
void Connection::meetPeer() {
    name_ = socket_.peerName();
    const auto peer = socket_.peerEndpoint();
    const auto process = socket_.peerIdentity();
    const bool isNear = process || peer.address >> 24U == kLoopbackNet;
    isAllowed_ = process ? context_.admission.admitsUser(process->uid)
                         : context_.admission.admitsAddress(peer.address);
    mayAsk_ = isNear || peer.address == socket_.ownEndpoint().address ||
              containAny(context_.statusFor, peer.address);
    peer_ = std::make_unique<Peer>(reportedAddress(peer, isNear, context_.hostAddress), *this,
                                   context_.counters);
    context_.willWatch(socket_.descriptor());
}

bool Connection::start() {
    meetPeer();
    if (!startReading()) return false;
    context_.counters.add(Counter::ConnectionsAccepted);
    context_.log.debug(name_ + " connected");
    peer_->start(now());
    return true;
}

void Connection::refuse(StreamSocket& listener) {
    (void)socket_.accept(context_.loop, listener, this);
    destroy();
}

// While the daemon is being replaced, nothing is read: `resume` comes later.
bool Connection::startReading() {
    if (context_.isPaused) return true;
    isReading_ = true;
    return uv_read_start(
               stream(),
               [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
                   *buffer = connectionOf(handle->data)->readBuffer();
               },
               [](uv_stream_t* from, ssize_t count, const uv_buf_t* buffer) {
                   connectionOf(from->data)->onRead(count, buffer->base);
               }) == 0;
}

// A second read in one turn gets no room, which ends it.
uv_buf_t Connection::readBuffer() {
    if (std::exchange(readTurn_, context_.line.turn()) == context_.line.turn()) {
        return uv_buf_init(nullptr, 0);
    }
    return uv_buf_init(context_.batch.readBuffer(),
                       context_.line.isCrowded() ? kReadBeside : Batch::kReadAtOnce);
}

void Connection::onRead(ssize_t count, const char* bytes) {
    if (count == UV_ENOBUFS || count == 0) return;
    guard([&] {
        if (count == UV_EOF) {
            enter(State::PeerEnded);
        } else if (count < 0) {
            fail(static_cast<int>(count));
        } else if (state_ == State::Open) {
            arrived_ = {reinterpret_cast<const std::uint8_t*>(bytes),
                        static_cast<std::size_t>(count)};
            arrivedAt_ = context_.line.time();
            hasMuch() ? context_.line.join(*this) : context_.line.come(*this);
            keepRest();
        }
    });
    chargeIncoming();
    endBatch(count > 0 ? static_cast<std::size_t>(count) : 0);
}

// Beside many others, what one has caused is written with what they cause in this turn: else each
// message to all would cost a system call for each of them.
void Connection::endBatch(std::size_t read) {
    context_.line.isCrowded() ? context_.batch.goOn(read) : context_.batch.end();
}

// Among many, who fills a whole read waits for its turn, whatever it has used so far: the turn of
// the loop, which all others wait for, would else be as long as all of them together.
bool Connection::hasMuch() const {
    return context_.line.isCrowded() && arrived_.size() >= kReadBeside;
}

// Keeps what has arrived, which is in the shared buffer, and is not read before it is done.
void Connection::keepRest() {
    if (arrived_.empty() && !routing_) return;
    rest_.assign(arrived_.begin(), arrived_.end());
    arrived_ = rest_;
    isReading_ = false;
    uv_read_stop(stream());
}

void Connection::work() {
    guard([this] {
        trim();
        writeWaiting(true);
        takeBytes();
        tellMore();
        answer();
    });
    chargeIncoming();
    // Else the batch ends after the turns of all in the line: what is routed lies in `rest_`.
    if (rest_.empty()) endBatch();
    if (state_ >= State::Failed) return;
    const bool hasToWrite = mayWrite() && !Batch::has(*this);
    const bool hasWork =
        isTrimming_ || !arrived_.empty() || routing_ || hasToWrite || mayTell() || mayAnswer();
    if (hasWork) return context_.line.join(*this);
    guard([this] { endIfDone(); });
    if (state_ < State::Failed && !isReading_ && !startReading()) fail(UV_ENOMEM);
}

void Connection::trim() {
    do {
        isTrimming_ = outbox_.trim() == Outbox::kDropsAtOnce;
    } while (isTrimming_ && !context_.line.isOver(Outbox::kDropsAtOnce));
}

void Connection::takeBytes() {
    if (state_ != State::Open) {
        arrived_ = {};
        routing_.reset();
        return;
    }
    if (routing_) route();
    if (arrived_.empty()) return;
    const std::size_t left = peer_->receive(arrived_, now());
    // It may have failed while a message was delivered to itself.
    arrived_ = state_ == State::Open ? arrived_.last(left) : wire::Bytes();
}

void Connection::chargeIncoming() {
    const std::size_t routing = routing_ ? routing_->match.memory() : 0;
    const std::size_t asked = answers_ ? answers_->memory() : 0;
    setCharge(Holding::Incoming, peer_->claimed() + rest_.capacity() + routing + asked);
}

bool Connection::mayGoOn() {
    return !routing_ && !context_.line.isOver(1);
}

void Connection::deliver(const PayloadRef& message) {
    context_.batch.add(*this);
    if (outbox_.wouldDrop(message->size())) return deliverToFull(message);
    outbox_.pushMessage(message);
}

// Whoever does not read pays for the room that is made, and for the copy of what waits.
void Connection::deliverToFull(const PayloadRef& message) {
    const Nanoseconds begin = context_.line.time();
    noteWritten();
    guard([&] {
        while (outbox_.wouldDrop(message->size()) && state_ < State::Failed && writingBytes_ == 0 &&
               writeSome(kWriteAtOnce) > 0) {
        }
    });
    const std::size_t dropped = outbox_.pushMessage(message);
    if (dropped == 0) return;
    const auto size = static_cast<Nanoseconds>(message->size());
    context_.line.blame(*this, begin, kKeepTime + size / kCopiedPerNanosecond);
    if (dropped == Outbox::kDropsAtOnce) context_.line.join(*this);
}

// In the turn of another: what a connection in the line has to write waits for its own turn.
void Connection::flush() {
    if (session_ != nullptr) Router::tell(*session_);
    if (state_ == State::Open && std::exchange(isDismissed_, false)) {
        end(CloseReason::TooManyPatterns, LossCause::Patterns);
    }
    if (state_ == State::Failed) return destroy();
    if (state_ == State::Closed || Line::isWaiting(*this)) return;
    if (!context_.line.hasWrittenMuch()) writeWaiting(false);
    if (state_ == State::Failed) return destroy();
    if (mayWrite() || mayTell() || mayAnswer()) return context_.line.join(*this);
    endIfDone();
}

void Connection::endIfDone() {
    if (writingBytes_ > 0 || !outbox_.empty()) return;
    if (state_ == State::Draining) sendFin();
    if (state_ == State::PeerEnded) destroy();
}

// While the daemon is being replaced, only what has to go before the rest of an answer.
bool Connection::mayWrite() const {
    const bool isHeld = context_.isPaused && (!answers_ || answers_->empty());
    return writingBytes_ == 0 && !outbox_.empty() && !isHeld;
}

// Until the socket takes no more, or long enough.
void Connection::writeWaiting(bool isOwnTurn) {
    if (state_ >= State::Failed) return;
    const bool isBrief = !isOwnTurn && context_.line.isCrowded();
    const std::size_t most = isBrief ? kWriteForOthers : kWriteAtOnce;
    std::size_t written = 0;
    while (mayWrite()) {
        const std::size_t some = writeSome(most);
        written += some;
        if (some == 0) return;
        if (isOwnTurn ? context_.line.isOver(Line::kStepsPerLook) : written >= most) return;
    }
}

// One system call. Returns the bytes offered when the socket took them all, else 0.
std::size_t Connection::writeSome(std::size_t most) {
    std::array<wire::Bytes, kWriteSlices> slices;
    std::array<uv_buf_t, kWriteSlices> buffers;
    const std::size_t count = outbox_.gather(slices);
    std::size_t used = 0;
    std::size_t offered = 0;
    for (; used < count && offered < most; ++used) {
        const auto piece = slices[used].first(std::min(slices[used].size(), most - offered));
        buffers[used] = asBuffer(piece);
        offered += piece.size();
    }
    if (used == 0) return 0;
    const int result = uv_try_write(stream(), buffers.data(), static_cast<unsigned>(used));
    if (result < 0 && result != UV_EAGAIN) {
        fail(result);
        return 0;
    }
    const auto taken = static_cast<std::size_t>(result < 0 ? 0 : result);
    context_.line.wrote(taken);
    outbox_.written(taken);
    if (taken == offered) return offered;
    writeFront();
    return 0;
}

// Lets libuv write the first entry as soon as the socket has room.
void Connection::writeFront() {
    const wire::Bytes whole = outbox_.pinFront();  // throws
    const wire::Bytes front = whole.first(std::min(whole.size(), kWriteAtOnce));
    const uv_buf_t buffer = asBuffer(front);
    write_ = std::make_unique<uv_write_t>();
    write_->data = this;
    const auto onEnd = [](uv_write_t* request, int result) {
        connectionOf(request->data)->onWritten(result);
    };
    const int status = uv_write(write_.get(), stream(), &buffer, 1, onEnd);
    if (status != 0) return fail(status);
    writingBytes_ = front.size();
}

// What libuv has written of the first entry so far no longer waits.
void Connection::noteWritten() {
    if (writingBytes_ == 0) return;
    const std::size_t left = std::max<std::size_t>(uv_stream_get_write_queue_size(stream()), 1);
    outbox_.written(writingBytes_ - left);
    writingBytes_ = left;
}

void Connection::onWritten(int status) {
    write_.reset();
    const std::size_t bytes = std::exchange(writingBytes_, 0);
    if (state_ == State::Closed) return;
    guard([&] {
        if (status != 0) return fail(status);
        outbox_.written(bytes);
        context_.line.come(*this);
    });
    endBatch();
}

void Connection::tick(platform::Milliseconds elapsed) {
    if (state_ == State::Closed) return;
    guard([this, elapsed] {
        noteWritten();
        notePace(pace_.look(outbox_, context_.queueLimit, now(), elapsed));
        publishedRate_ = perSecond(published_.messages - publishedBefore_, elapsed);
        publishedBefore_ = published_.messages;
        refreshTold();
        if (arrived_.empty()) rest_ = std::vector<std::uint8_t>();  // `= {}` would keep its memory
        outbox_.rest();
        chargeIncoming();
        if (state_ == State::Open) peer_->tick(now());
    });
    if (state_ != State::Open && now() >= endBy_) destroy();
}

void Connection::notePace(const Pace::Look& look) {
    if (look.hasTaken) peer_->tookMessages(now());
    if (look.text.empty()) return;
    const std::string line = who() + look.text;
    look.isBehind ? context_.log.warning(line) : context_.log.info(line);
}

void Connection::logEnd(const char* reason) {
    context_.log.warning(who() + " is closed: " + reason + ", " + std::to_string(held()) +
                         " bytes held, " + std::to_string(outbox_.totals().dropped) +
                         " messages dropped, " + std::to_string(outbox_.waitingMessages()) +
                         " waiting");
}

std::string Connection::who() const {
    return sessionName_.empty() ? name_ : sessionName_ + " (" + name_ + ')';
}

void Connection::shutDown() {
    if (state_ >= State::Failed) return;
    outbox_.endsFor(Drop::Shutdown);
    guard([this] { peer_->shutDown(); });
}

// The oldest message not begun, and when there is none the connection. What it has to say is
// written only if it is not within a message, which its peer may never take.
bool Connection::giveUp() {
    if (outbox_.dropOldest(LossCause::Memory)) return true;
    if (state_ >= State::Failed) return false;
    context_.counters.add(Counter::ConnectionsEvicted);
    outbox_.endsFor(Drop::Memory);
    if (state_ != State::Open || outbox_.isWithinEntry()) fail(UV_ENOBUFS);
    end(CloseReason::OutOfMemory, LossCause::Memory);
    setCharge(Holding::Incoming, 0);
    return false;
}

// Within the turn of the sender of a message, which may be this session.
void Connection::dismiss() {
    isDismissed_ = true;
    context_.batch.add(*this);
}

// Ends it for a limit of the daemon, and says so as long as it can be told.
void Connection::end(CloseReason reason, LossCause cause) {
    guard([&] { logEnd(textOf(reason)); });
    if (state_ == State::Open) outbox_.announceEnd(cause);
    guard([&] { peer_->end(reason); });
    leaveSession();
}

void Connection::sendFin() {
    enter(State::FinSent);
    shutdown_ = std::make_unique<uv_shutdown_t>();
    if (uv_shutdown(shutdown_.get(), stream(), [](uv_shutdown_t*, int) {}) != 0) destroy();
}

void Connection::fail(int status) {
    if (state_ >= State::Failed) return;
    enter(State::Failed);
    if (context_.log.enabled(platform::LogLevel::Debug)) {
        context_.log.debug(name_ + " lost: " + uv_strerror(status));
    }
}

void Connection::destroy() {
    if (state_ == State::Closed) return;
    enter(State::Closed);
    context_.line.leave(*this);
    context_.closed(*this);
    uv_close(socket_.handle(), [](uv_handle_t* handle) {
        Connection* connection = connectionOf(handle->data);
        connection->context_.gone(*connection);
    });
}

bool Connection::clearUp() {
    while (!outbox_.empty()) {
        if (context_.line.isOver(1 + outbox_.discardFront() / kBytesPerStep)) return false;
    }
    peer_.reset();  // with a message that is not whole
    (void)context_.line.isOver(held() / kBytesPerStep);
    return true;
}

void Connection::send(wire::Bytes bytes) {
    if (!outbox_.pushControl(bytes)) return fail(UV_ENOBUFS);
    context_.batch.add(*this);
}

void Connection::close(CloseReason reason) {
    if (const auto counter = counterOf(reason)) context_.counters.add(*counter);
    if (reason == CloseReason::NotAllowed) context_.notAllowed(*this);
    if (reason == CloseReason::TooManyListens) {
        logEnd(textOf(reason));
        outbox_.announceEnd(LossCause::Listens);
    }
    enter(State::Draining);
    context_.log.debug(name_ + " ends: " + textOf(reason));
}

}  // namespace kvx::rvd
