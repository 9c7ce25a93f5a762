// One loop, one thread. Every callback that can cause output ends the batch last. A connection is
// deleted only after libuv has closed its handle.

#include "rvd/Server.h"

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <string>
#include <utility>

#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Signals.h"
#include "platform/Socket.h"

namespace kvx::rvd {
namespace {

constexpr std::uint64_t kTickMs = 1'000;
constexpr std::uint64_t kSoonMs = 50;         // while the daemon ends, and without memory
constexpr std::size_t kSpareDescriptors = 8;  // one to turn a newcomer away with, and files
constexpr unsigned kAcceptedAtOnce = 16;      // connections, in one turn of the loop
constexpr std::size_t kListensAtOnce = 64;    // undone between two looks at the clock

// All sessions together may hold half of what the process may use, 1 GiB if that is unknown.
constexpr std::uint64_t kMemoryShare = 2;
constexpr std::uint64_t kMemoryFallback = 1ULL << 30U;
constexpr platform::Milliseconds kReturnMs = 4'000;  // between two returns of freed memory

Server* serverOf(const void* data) {
    return static_cast<Server*>(const_cast<void*>(data));
}

Nanoseconds nanoseconds() {
    return static_cast<Nanoseconds>(uv_hrtime());
}

std::uint64_t memoryLimit(const Options& options) {
    if (options.memoryLimit) return *options.memoryLimit;
    const std::uint64_t available = platform::availableMemoryBytes();
    return available == 0 ? kMemoryFallback : available / kMemoryShare;
}

std::uint32_t hostAddressFor(const Options& options) {
    if (options.hostAddress) return *options.hostAddress;
    return platform::localHostAddress().value_or(platform::kLoopbackAddress);
}

template <class Handle>
void closeHandle(Handle& handle) {
    auto* plain = reinterpret_cast<uv_handle_t*>(&handle);
    if (uv_is_closing(plain) == 0) uv_close(plain, nullptr);
}

}  // namespace

Server::Server(const Options& options, platform::Log log)
    : options_(options),
      log_(std::move(log)),
      account_(memoryLimit(options)),
      router_(counters_, options.queueLimit),
      line_(nanoseconds, platform::threadCpuNanoseconds),
      delays_(nanoseconds),
      context_{loop_,
               log_,
               counters_,
               account_,
               router_,
               batch_,
               line_,
               busy_,
               delays_,
               recorder_,
               reports_,
               options.queueLimit,
               isPaused_,
               options.stepsAtOnce,
               hostAddressFor(options),
               options_.admission,
               options_.statusFor,
               [this](int descriptor) { reserveWatchers(static_cast<std::size_t>(descriptor)); },
               [this](const Connection& connection) { unannounced_.erase(connection.number()); },
               [this](const Connection& connection) {
                   notAllowed_.warn(connection.peerName() +
                                        " is turned away: " + textOf(CloseReason::NotAllowed),
                                    now());
               },
               [this](const Connection& connection) { onClosed(connection); },
               [this](Connection& connection) { forget(connection); }} {
    uv_loop_init(&loop_);
    uv_timer_init(&loop_, &tick_);
    uv_timer_init(&loop_, &alive_);
    uv_prepare_init(&loop_, &turn_);
    uv_idle_init(&loop_, &goOn_);
    tick_.data = turn_.data = goOn_.data = this;
}

Server::~Server() {
    for (auto& [number, connection] : connections_) connection->destroy();
    closeHandles();
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
}

bool Server::listen(std::vector<platform::PassedSocket> passed) {
    for (BoundAddress& place : placesToListen(options_.listen, std::move(passed))) {
        Listener& made = addListener(place.address);
        if (place.socket) made.adopt(std::move(place.socket));
        const std::string error = place.address.isPassed ? made.listen() : made.open();
        if (!error.empty()) {
            log_.error("cannot listen on " + made.text() + ": " + error);
            return false;
        }
    }
    return true;
}

Listener& Server::addListener(const ListenAddress& address) {
    const auto arrived = [this](Listener& from, int status) { onConnection(from, status); };
    return *listeners_.emplace_back(std::make_unique<Listener>(loop_, address, arrived));
}

// From that place of a recording, or in a new one. False, with a line in the log, when it fails.
bool Server::startRecording(std::optional<Recorder::Place> place) {
    if (options_.recorder.size == 0) return true;
    std::string error;
    const std::string address = listeners_.front()->text();
    recorder_ = place ? Recorder::goOn(options_.recorder, address, nanoseconds, *place, error)
                      : Recorder::create(options_.recorder, address, nanoseconds, error);
    if (recorder_) {
        log_.info("recording the last messages in " + recorder_->path());
    } else {
        log_.error("cannot record in " + error);
    }
    return recorder_ != nullptr;
}

bool Server::start(std::vector<platform::PassedSocket> passed) {
    if (signals_.descriptor() < 0) {
        log_.error("no descriptor to read signals from");
        return false;
    }
    if (!listen(std::move(passed)) || !startRecording(std::nullopt)) return false;
    bornAt_ = now();
    begin();
    log_.info("listening on " + address_ + ", " + std::to_string(options_.queueLimit) +
              " bytes may wait for one session, " + std::to_string(account_.limit()) + " for all");
    return true;
}

std::array<int, 4> Server::handledSignals() {
    namespace number = platform::signal_number;
    return {number::terminate(), number::interrupt(), number::user1(), number::user2()};
}

void Server::begin() {
    for (const auto& listener : listeners_) {
        address_ += (address_.empty() ? "" : " ") + listener->text();
    }
    tickedAt_ = now();
    // Those of connections that were taken over are in use already.
    const std::size_t descriptors = platform::raiseDescriptorLimit() + open_;
    mostOpen_ = descriptors > kSpareDescriptors ? descriptors - kSpareDescriptors : 1;
    startTick(kTickMs);
    if (aliveEvery_) {
        const auto tell = [](uv_timer_t*) { platform::tellAlive(); };
        uv_timer_start(&alive_, tell, 0, static_cast<std::uint64_t>(*aliveEvery_));
    }
    uv_prepare_start(&turn_, [](uv_prepare_t* turn) { serverOf(turn->data)->onTurn(); });
    uv_poll_init(&loop_, &signalled_, signals_.descriptor());
    signalled_.data = this;
    uv_poll_start(&signalled_, UV_READABLE,
                  [](uv_poll_t* poll, int, int) { serverOf(poll->data)->onSignals(); });
}

void Server::onSignals() {
    namespace number = platform::signal_number;
    while (const int signal = signals_.next()) {
        if (signal == number::user1()) {
            logCounters();
        } else if (signal == number::user2()) {
            tryTo(&Server::replace);
        } else {
            stop();
        }
    }
}

void Server::startTick(std::uint64_t firstMs) {
    uv_timer_start(
        &tick_, [](uv_timer_t* timer) { serverOf(timer->data)->onTick(); }, firstMs,
        stopping_ ? kSoonMs : kTickMs);
}

int Server::run() {
    uv_run(&loop_, UV_RUN_DEFAULT);
    logCounters();
    return 0;
}

// libuv goes on only when a connection is accepted.
void Server::onConnection(Listener& listener, int status) {
    if (status == 0 && acceptedNow_ == kAcceptedAtOnce) {
        listener.wait = Listener::Wait::NextTurn;
        return;
    }
    try {
        if (status == 0) {
            ++acceptedNow_;
            acceptNext(listener);
        } else {
            crowded_.warn(std::string("cannot accept: ") + uv_strerror(status), now());
        }
    } catch (const std::bad_alloc&) {
        if (status == 0) listener.wait = Listener::Wait::Memory;
        startTick(kSoonMs);
    }
    batch_.end();
}

void Server::goOnAccepting(Listener::Wait since) {
    for (const auto& listener : listeners_) {
        if (listener->wait != since) continue;
        listener->wait = Listener::Wait::Nothing;
        if (!stopping_) onConnection(*listener, 0);
    }
}

bool Server::isNextWaiting() const {
    return std::ranges::any_of(listeners_, [](const auto& listener) {
        return listener->wait == Listener::Wait::NextTurn;
    });
}

Connection& Server::addConnection(std::uint64_t number) {
    if (gone_.capacity() <= connections_.size()) gone_.reserve(2 * connections_.size() + 8);
    auto made = std::make_unique<Connection>(context_, number);
    Connection& connection = *made;
    const auto place = unannounced_.emplace(number, &connection).first;
    try {
        connections_.emplace_hint(connections_.end(), number, std::move(made));
    } catch (...) {
        unannounced_.erase(place);
        throw;
    }
    ++open_;
    return connection;
}

// Throws `std::bad_alloc` when the connection is not accepted.
void Server::acceptNext(Listener& listener) {
    Connection* const connection = &addConnection(accepted_ + 1);
    ++accepted_;
    if (open_ > mostOpen_ && !makeRoom()) {
        counters_.add(Counter::ConnectionsRefused);
        return connection->refuse(listener.socket());
    }
    if (!connection->accept(listener.socket())) connection->destroy();
}

// libuv ends the process when its table of watchers, one for each descriptor, cannot grow. So twice
// the memory that it may need next is taken first, and given back for it.
void Server::reserveWatchers(std::size_t descriptor) {
    const std::size_t needed = std::bit_ceil(descriptor + 4);
    if (needed <= watchers_) return;
    wire::Buffer().reserve(2 * needed * sizeof(void*));
    watchers_ = needed;
}

// Closes the oldest connection that has not announced itself. False when there is none but the
// newest one.
bool Server::makeRoom() noexcept {
    try {
        crowded_.warn("all " + std::to_string(mostOpen_) +
                          " connections for which there are descriptors are in use",
                      now());
    } catch (const std::bad_alloc&) {  // the counters tell
    }
    if (unannounced_.size() <= 1) return false;
    unannounced_.begin()->second->destroy();
    return true;
}

void Server::onClosed(const Connection& connection) {
    --open_;
    unannounced_.erase(connection.number());
}

void Server::onTurn() {
    batch_.end();
    if (isPaused_ && isQuiet()) tryTo(&Server::handOver);
    line_.nextTurn();
    acceptedNow_ = 0;
    if (line_.empty() && !hasToClearUp() && !isNextWaiting()) {
        uv_idle_stop(&goOn_);
    } else {
        uv_idle_start(&goOn_, [](uv_idle_t* idle) {
            Server& server = *serverOf(idle->data);
            server.line_.run();
            if (server.hasToClearUp()) server.line_.serve(server.cleaner_);
            server.goOnAccepting(Listener::Wait::NextTurn);
            server.batch_.end();
        });
    }
}

void Server::clearUp() {
    while (!line_.isOver(0) && !gone_.empty() && gone_.back()->clearUp()) {
        Connection& connection = *gone_.back();
        gone_.pop_back();
        erase(connection);
    }
    while (!line_.isOver(0) && router_.clearUp(kListensAtOnce)) {
        (void)line_.isOver(kListensAtOnce);
    }
    account_.setOrphaned(router_.orphanedBytes());
}

void Server::forget(Connection& connection) {
    batch_.end();  // of which it may be a member
    if (connection.isHeavy()) return gone_.push_back(&connection);
    erase(connection);
}

void Server::erase(Connection& connection) {
    connections_.erase(connection.number());
    if (stopping_ && connections_.empty()) closeHandles();
}

void Server::onTick() {
    const bool late = stopping_ && now() >= stopBy_;
    const platform::Milliseconds elapsed = now() - std::exchange(tickedAt_, now());
    measure(elapsed);
    for (auto& [number, connection] : connections_) {
        if (late) {
            connection->destroy();
        } else {
            connection->tick(elapsed);
        }
    }
    if (successor_ && now() >= replaceBy_) keepOn("it takes too long");
    goOnAccepting(Listener::Wait::Memory);
    batch_.end();
    returnMemory();
}

void Server::measure(platform::Milliseconds elapsed) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(Counter::Count); ++i) {
        const auto counter = static_cast<Counter>(i);
        rates_.set(counter, perSecond(counters_[counter] - before_[counter], elapsed));
    }
    before_ = counters_;
    busy_.tick(elapsed);
    delays_.tick(now());
    if (recorder_) recorder_->tick();
}

Counters Server::counted() const {
    Counters counters = counters_;
    std::uint64_t waiting = 0;
    for (const auto& [number, connection] : connections_) waiting += connection->waitingMessages();
    counters.set(Counter::MessagesWaiting, waiting);
    return counters;
}

StatusFacts Server::status() const {
    StatusFacts facts;
    facts.pid = platform::processId();
    for (const auto& listener : listeners_) facts.addresses.push_back(listener->text());
    facts.started = startedAt_;
    facts.replacements = replacements_;
    facts.replaceFailures = replaceFailures_;
    facts.replaceError = replaceError_;
    facts.age = now() - bornAt_;
    facts.queueLimit = options_.queueLimit;
    facts.descriptors = mostOpen_;
    facts.memoryLimit = account_.limit();
    facts.memoryUsed = account_.used();
    facts.memory = account_.kinds();
    facts.counters = counted();
    facts.rates = &rates_;
    facts.delays = &delays_;
    facts.recorder = recorder_.get();
    return facts;
}

std::optional<SessionFacts> Server::sessionAfter(std::uint64_t number) const {
    const auto next = connections_.upper_bound(number);
    if (next == connections_.end()) return std::nullopt;
    return next->second->facts();
}

void Server::returnMemory() {
    if (now() - returnedAt_ < kReturnMs || !account_.hasFreedMuch()) return;
    returnedAt_ = now();
    platform::returnFreedMemory();
}

void Server::stop() {
    if (stopping_) return;
    if (successor_) keepOn("it is to end");
    stopping_ = true;
    stopBy_ = now() + Connection::kEndingMs;
    logStop();
    closeListeners();
    startTick(kSoonMs);
    for (auto& [number, connection] : connections_) connection->shutDown();
    batch_.end();
    if (connections_.empty()) closeHandles();
}

void Server::closeListeners() {
    for (const auto& listener : listeners_) listener->close();
}

void Server::closeHandles() {
    closeListeners();
    closeHandle(tick_);
    closeHandle(alive_);
    closeHandle(turn_);
    closeHandle(goOn_);
    if (signalled_.data != nullptr) closeHandle(signalled_);
    hearNoMore();
}

void Server::logStop() noexcept {
    try {
        log_.info("stopping, " + std::to_string(connections_.size()) + " connections open");
    } catch (const std::bad_alloc&) {  // it stops all the same
    }
}

void Server::logCounters() noexcept {
    if (!log_.enabled(platform::LogLevel::Info)) return;
    const Counters counters = counted();
    try {
        std::string line = "counted:";
        const auto table = counterTable();
        for (std::size_t i = 0; i < table.size(); ++i) {
            const std::uint64_t value = counters[static_cast<Counter>(i)];
            if (value != 0) line += std::string(" ") + table[i].name + '=' + std::to_string(value);
        }
        log_.info(line);
    } catch (const std::bad_alloc&) {
        return;
    }
}

}  // namespace kvx::rvd
