// The handshake blocks, each step for a few seconds at most: without a daemon there is nothing else
// to do for this space. Once it is done, everything comes from events of the queue.

#include "rvbridge/DaemonLink.h"

#include <cstdio>
#include <utility>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "rv/error/rvErrors.h"
#include "rv/link/LinkIo.h"
#include "rv/session/SessionParts.h"
#include "rv/wire/DaemonText.h"
#include "rv/wire/Negotiation.h"

namespace kvx::bridge {

namespace {

constexpr platform::Milliseconds kStepMs = 2'000;  // of the handshake
constexpr unsigned long kTurnMs = 10;              // for all else between two handshakes
constexpr platform::Milliseconds kSlowMs = 100;    // a handshake
constexpr int kReadBudget = 256 * 1024;            // bytes read in one turn
constexpr int kSegmentBytes = 64 * 1024;

// Another one for each session of this process.
std::string newName(std::uint32_t address) {
    static unsigned long number = 0;
    char name[96];
    std::snprintf(name, sizeof name, "%08lX.BRIDGE%lX-%lX",
                  static_cast<unsigned long>(loadBig32(&address)), platform::processId(), ++number);
    return name;
}

}  // namespace

DaemonLink::DaemonLink(rvevm_Manager manager, std::string daemon, std::string service,
                       std::string network, DaemonOwner& owner)
    : manager_(manager),
      daemon_(std::move(daemon)),
      service_(std::move(service)),
      network_(std::move(network)),
      owner_(owner) {}

DaemonLink::~DaemonLink() {
    if (retry_ != nullptr) rvevm_RemoveTimer(manager_, retry_);
    if (queue_ != nullptr) ipq_Close(queue_, true);
}

ipq_Properties DaemonLink::linkProperties() const {
    return {.batching = 1, .readBudget = kReadBudget, .segmentSize = kSegmentBytes};
}

void DaemonLink::start() {
    connectIn(0);
}

// At most one slow handshake in a turn of the loop, whatever the number of links: signals and the
// engine come in between.
void DaemonLink::connectIn(unsigned long milliseconds) {
    static platform::Milliseconds freeAt = 0;
    const auto onTime = [](void*, void* closure, int, void*) {
        auto& self = *static_cast<DaemonLink*>(closure);
        self.retry_ = nullptr;
        const auto before = platform::monotonicMs();
        if (before < freeAt) return self.connectIn(kTurnMs);
        self.connect();
        const auto after = platform::monotonicMs();
        if (after - before > kSlowMs) freeAt = after + kTurnMs;
    };
    if (retry_ == nullptr) (void)rvevm_AddTimer(manager_, &retry_, milliseconds, onTime, this);
}

void DaemonLink::connect() {
    platform::Socket socket;
    std::string why = greet(socket);
    if (why.empty()) why = introduce(std::move(socket));
    if (!why.empty()) return lose(why);
    ipq_SetMessageCallback(
        queue_,
        [](ipq_Queue, const wire::Envelope& message, void* closure) {
            static_cast<DaemonLink*>(closure)->owner_.onDaemonMessage(message.bytes);
        },
        this);
    ipq_SetPeerGoneCallback(
        queue_,
        [](ipq_Queue, ipq_State, void* closure) {
            static_cast<DaemonLink*>(closure)->lose("the daemon has closed the connection");
        },
        this);
    owner_.onDaemonUp();
}

// From the address to a greeted daemon. Returns an empty text, or what went wrong.
std::string DaemonLink::greet(platform::Socket& socket) const {
    const auto address = session::parseDaemon(daemon_.c_str());
    if (!address) return "'" + daemon_ + "' is no daemon (" + wire::kDaemonForms + ')';
    int error = 0;
    socket = session::newSocketFor(*address, error);
    if (socket) error = session::connectWithin(socket, *address, kStepMs);
    if (error != 0) return session::socketText(error);
    wire::GreetingBytes bytes{};
    const auto deadline = link::Deadline::in(kStepMs);
    if (!link::readExactly(socket.get(), bytes, deadline)) return "no greeting of a daemon came";
    const wire::Greeting greeting = wire::decodeGreeting(bytes);
    if (greeting.first != 0 || greeting.version != wire::kProtocolV4) {
        return "the daemon speaks another protocol";
    }
    const wire::Greeting answer{0, wire::kProtocolV4, address->local ? 1U : 0U};
    const bool isSent = link::writeExactly(socket.get(), wire::encode(answer), deadline);
    return isSent ? "" : "the daemon takes no greeting";
}

// Two init messages, as for every session: the answer to the first one says the name. Returns as
// `greet`.
std::string DaemonLink::introduce(platform::Socket socket) {
    if (ipq_NegotiateV4(&queue_, *this, std::move(socket)) != IPQ_SETUP_OK) {
        queue_ = nullptr;
        return "the daemon does not agree on a link";
    }
    const std::string user = platform::userName();
    wire::InitFields fields;
    fields.userId = user.c_str();
    fields.service = service_.c_str();
    fields.network = network_.c_str();
    ipq_SetBlocking(queue_, true);
    ipq_SetStallLimit(queue_, kStepMs);
    if (!put(wire::buildInit(fields))) return "the daemon takes no messages";
    const wire::Bytes answer = ipq_ReadWithin(queue_, kStepMs);
    if (answer.empty()) return "no answer of the daemon came";
    const wire::Reply reply = wire::readReply(answer);
    if (reply.code != 0) return rv_ErrorText(reply.code);
    name_ = newName(reply.ipAddress);
    fields.session = name_.c_str();
    if (!put(wire::buildInit(fields))) return "the daemon takes no messages";
    ipq_SetBlocking(queue_, false);
    return {};
}

void DaemonLink::lose(const std::string& why) {
    if (queue_ != nullptr) ipq_Close(std::exchange(queue_, nullptr), false);
    connectIn(kPause);
    owner_.onDaemonDown(why);
}

bool DaemonLink::listen(SubjectView subject) {
    return put(wire::buildListen(subject.bytes(), nullptr, 0));
}

bool DaemonLink::cancel(SubjectView subject) {
    return put(wire::buildCancel(subject.bytes(), 0));
}

bool DaemonLink::send(wire::Bytes message) {
    return send(wire::Built{0, wire::OwnedMessage::copyOf(message)});
}

bool DaemonLink::send(wire::Built message) {
    const bool hasRoom =
        isUp() && ipq_WaitingBytes(queue_) + message.message.size() <= kMostWaiting;
    return hasRoom && put(std::move(message));
}

bool DaemonLink::put(wire::Built message) {
    if (!isUp() || message.code != 0 || !message.message.bytes) return false;
    return ipq_Enqueue(queue_, std::move(message.message), false) || ipq_WasKept(queue_);
}

}  // namespace kvx::bridge
