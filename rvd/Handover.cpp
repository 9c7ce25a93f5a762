// How one daemon takes the place of another without anybody noticing.
//
// The old one starts its successor, which says hello: until then nothing has changed. Then the old
// one pauses: it reads and writes nothing more, but for answers to inquiries, and goes on until
// what it has read is routed. What is not written waits in a queue, as ever. When all are quiet, it
// writes its state into a file in memory and sends that with the descriptors of all sockets; from
// then on it waits, and does nothing. The successor restores all, and touches no socket before the
// old one has said "go", which is the last that it does. When anything fails before that, the
// successor is ended, and the old one goes on. When the old one ends without a word, killed since
// memory is short, the successor begins: it alone has what both had.
//
// Signals that come meanwhile are passed on to the successor.
//
// A message has been written whole, in part, or not at all: the queue knows how far, so that no
// byte is lost or doubled. Times are of the monotonic clock, which both read.
//
// Not handed over: answers to inquiries that their session does not read, rates, and what was
// counted of subjects. Sessions that follow interest are told all of it anew.

#include <algorithm>
#include <string>
#include <utility>

#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Supervisor.h"
#include "rvd/Server.h"
#include "rvd/Version.h"

namespace kvx::rvd {
namespace {

constexpr platform::Milliseconds kStartMs = 5'000;    // for the successor to say hello
constexpr platform::Milliseconds kQuietMs = 2'000;    // for the connections to become quiet
constexpr platform::Milliseconds kAnswersMs = 1'000;  // of that, for answers to be read
constexpr std::uint64_t kCopies = 3;  // of what is held, while the successor takes it over

}  // namespace

void Connection::pause() {
    if (!isReading_) return;
    isReading_ = false;
    uv_read_stop(stream());
}

// What libuv has written, and has not told yet, would be unknown.
bool Connection::isQuiet(bool withAnswers) const {
    const bool isUntold =
        writingBytes_ > 0 &&
        uv_stream_get_write_queue_size(const_cast<StreamSocket&>(socket_).stream()) == 0;
    return state_ < State::Failed && !routing_ && !isUntold && !isTrimming_ && !isDismissed_ &&
           arrived_.empty() && (!withAnswers || !answers_ || answers_->empty());
}

void Connection::save(StateWriter& state) {
    noteWritten();
    state.boolean(socket_.kind() == StreamSocket::Kind::Unix);
    state.number(number_);
    // The successor says once more that nothing follows.
    const State restored = state_ == State::FinSent ? State::Draining : state_;
    state.number(static_cast<std::uint64_t>(restored));
    state.number(static_cast<std::uint64_t>(endBy_));
    state.number(static_cast<std::uint64_t>(acceptedAt_));
    state.text(sessionName_);
    state.number(published_.messages);
    state.number(published_.bytes);
    peer_->save(state);
    outbox_.save(state);
    state.boolean(session_ != nullptr);
    if (session_ == nullptr) return;
    state.text(session_->service());
    state.text(session_->network());
    Router::save(*session_, state);
}

void Connection::restore(StateReader& state, platform::Descriptor socket) {
    if (!socket_.adopt(std::move(socket))) throw StateError("a connection is of no use");
    meetPeer();
    state.into(state_);
    state.into(endBy_);
    state.into(acceptedAt_);
    sessionName_ = state.text();
    state.into(published_.messages);
    state.into(published_.bytes);
    peer_->restore(state);
    outbox_.restore(state);
    publishedBefore_ = published_.messages;
    pace_.begin(outbox_.totals());
    if (!state.boolean()) return;
    const std::string service(state.text());
    const std::string network(state.text());
    session_ = &context_.router.join(service, network, *this);
    context_.announced(*this);
    context_.router.restore(*session_, state);
    setCharge(Holding::Listens, session_->listenBytes());
}

void Connection::resume() {
    if (state_ >= State::Failed) return;
    chargeIncoming();
    const bool mayRead = state_ < State::PeerEnded && arrived_.empty() && !routing_;
    if (mayRead && !isReading_ && !startReading()) fail(UV_ENOMEM);
    context_.batch.add(*this);
}

// No exception may pass libuv, which is C.
void Server::tryTo(void (Server::*step)()) noexcept {
    try {
        (this->*step)();
    } catch (const std::exception& failed) {
        keepOn(failed.what());
    }
}

void Server::replace() {
    if (stopping_ || successor_) return;
    if (platform::processId() == 1) return keepOn("it is process 1, whose end ends its container");
    successor_.emplace();
    const std::uint64_t available = platform::availableMemoryBytes();
    if (available != 0 && account_.used() > available / kCopies) {
        return keepOn("there is no memory for a copy of the " + std::to_string(account_.used()) +
                      " bytes that it holds");
    }
    platform::Program program = options_.program;
    program.isSuccessor = true;
    program.arguments.emplace_back(kTakeOver);
    program.arguments.push_back(std::to_string(platform::Program::kInherited));
    if (const std::string error = successor_->start(std::move(program)); !error.empty()) {
        return keepOn(error);
    }
    log_.info("starting a successor, process " + std::to_string(successor_->pid()));
    replaceBy_ = now() + kStartMs;
    reserveWatchers(static_cast<std::size_t>(successor_->descriptor()));
    hello_ = new uv_poll_t;
    uv_poll_init(&loop_, hello_, successor_->descriptor());
    hello_->data = this;
    uv_poll_start(hello_, UV_READABLE, [](uv_poll_t* poll, int, int) {
        static_cast<Server*>(poll->data)->tryTo(&Server::onHello);
    });
}

void Server::hearNoMore() {
    if (hello_ == nullptr) return;
    uv_close(reinterpret_cast<uv_handle_t*>(std::exchange(hello_, nullptr)),
             [](uv_handle_t* handle) { delete reinterpret_cast<uv_poll_t*>(handle); });
}

void Server::onHello() {
    hearNoMore();
    if (const std::string error = successor_->hear(); !error.empty()) return keepOn(error);
    isPaused_ = true;
    replaceBy_ = now() + kQuietMs;
    for (auto& [number, connection] : connections_) connection->pause();
}

// What fails is said, if there is memory for that, and the daemon goes on.
void Server::keepOn(std::string_view reason) noexcept {
    ++replaceFailures_;
    try {
        replaceError_ = reason;
        log_.error("not replaced: " + replaceError_);
    } catch (const std::bad_alloc&) {  // the number of failures tells
    }
    hearNoMore();
    successor_.reset();
    if (!std::exchange(isPaused_, false)) return;
    for (auto& [number, connection] : connections_) connection->resume();
    batch_.end();
}

bool Server::isQuiet() const {
    const bool withAnswers = now() < replaceBy_ - kQuietMs + kAnswersMs;
    const bool isAccepting = std::ranges::any_of(
        listeners_, [](const auto& listener) { return listener->wait != Listener::Wait::Nothing; });
    return !hasToClearUp() && !isAccepting &&
           std::ranges::all_of(connections_, [withAnswers](const auto& numbered) {
               return numbered.second->isQuiet(withAnswers);
           });
}

void Server::handOver() {
    if (aliveEvery_) platform::tellAlive();  // for the time that the loop stands still
    const platform::Descriptor file = platform::MemoryFile::create();
    StateWriter state(file.get());
    std::vector<int> descriptors;
    save(state, descriptors);
    state.flush();
    const std::string error = successor_->give(file.get(), descriptors);
    if (!error.empty()) return keepOn(error);
    const unsigned long pid = successor_->pid();
    log_.info("replaced by process " + std::to_string(pid) + ", version " + successor_->version() +
              ", which has " + std::to_string(connections_.size()) + " connections");
    platform::tellServing(pid);
    if (successor_->go()) {
        while (const int signal = signals_.next()) {
            platform::sendSignal(pid, signal);
        }
        platform::exitNow(0);
    }
    platform::tellServing(platform::processId());
    keepOn("it has ended");
}

// Those that follow come last: the successor tells them of the listens of all others.
void Server::save(StateWriter& state, std::vector<int>& descriptors) {
    state.number(accepted_);
    state.number(replacements_);
    state.number(static_cast<std::uint64_t>(startedAt_));
    state.number(static_cast<std::uint64_t>(bornAt_));
    counters_.save(state);
    const auto recorder = recorder_ ? recorder_->place() : Recorder::Place();
    state.number(recorder.seed);
    state.number(recorder.position);
    router_.save(state);
    state.number(listeners_.size());
    for (const auto& listener : listeners_) {
        state.text(listener->address().path);
        state.number(listener->address().endpoint.address);
        state.number(listener->address().endpoint.port);
        state.boolean(listener->address().isPassed);
        descriptors.push_back(listener->socket().descriptor());
    }
    state.number(connections_.size());
    for (const bool follows : {false, true}) {
        for (auto& [number, connection] : connections_) {
            if (connection->follows() != follows) continue;
            connection->save(state);
            descriptors.push_back(connection->descriptor());
        }
    }
}

bool Server::takeOver(int descriptor) {
    Predecessor predecessor(descriptor);
    std::string error = predecessor.takeOver(version());
    if (error.empty() && signals_.descriptor() < 0) {
        error = "no descriptor to read signals from";
        predecessor.refuse(error);
    }
    if (error.empty()) {
        try {
            const platform::MemoryFile file(predecessor.state());
            StateReader state(file.bytes());
            restore(state, predecessor);
            if (!state.isAtEnd()) throw StateError("the state is longer than it should be");
        } catch (const std::exception& failed) {
            error = failed.what();
            predecessor.refuse(error);
        }
    }
    if (error.empty() && !predecessor.begin()) error = "the predecessor goes on";
    isPaused_ = false;
    if (!error.empty()) {
        log_.error("cannot take over: " + error);
        platform::exitNow(1);  // nothing of this process may touch a socket
    }
    for (const auto& listener : listeners_) {
        if (error = listener->listen(); !error.empty()) log_.error(listener->text() + ": " + error);
    }
    (void)startRecording(recorderBefore_);  // it serves without, too
    for (auto& [number, connection] : connections_) connection->resume();
    begin();
    batch_.end();
    log_.info("took over " + std::to_string(connections_.size()) + " connections on " + address_);
    return true;
}

void Server::restore(StateReader& state, Predecessor& predecessor) {
    isPaused_ = true;
    state.into(accepted_);
    state.into(replacements_);
    ++replacements_;
    state.into(startedAt_);
    state.into(bornAt_);
    Counters counters;
    counters.restore(state);
    state.into(recorderBefore_.seed);
    state.into(recorderBefore_.position);
    router_.restore(state);
    for (std::uint64_t left = state.number(); left > 0; --left) {
        ListenAddress address;
        address.path = state.text();
        state.into(address.endpoint.address);
        state.into(address.endpoint.port);
        address.isPassed = state.boolean();
        addListener(address).adopt(predecessor.next());
    }
    for (std::uint64_t left = state.number(); left > 0; --left) {
        const auto kind = state.boolean() ? StreamSocket::Kind::Unix : StreamSocket::Kind::Tcp;
        const std::uint64_t number = state.number();
        Connection& connection = addConnection(number);
        connection.begin(kind);
        connection.restore(state, predecessor.next());
    }
    counters_ = counters;
    before_ = counters;
}

}  // namespace kvx::rvd
