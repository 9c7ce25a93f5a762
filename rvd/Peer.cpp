// The states of one connection, and their input:
//
//   AwaitAnswer --12 bytes--> AwaitAgreement (version 4) or AwaitBlock (version 3)
//   either      --64 bytes--> AwaitInit
//   AwaitInit   --init------> Open      (an init that names no service or no network is answered
//                                        with an error and changes nothing; one of a peer that may
//                                        not be a session is, too, and leads to Closed)
//   Open        --messages--> Open
//   any         --failure, close notice, silence, shutdown--> Closed
//
// In the first three states input has a fixed size and is collected in `block_`; from AwaitInit on
// it is a stream of frames. Until the first init has been read, time and bytes are counted.
//
// A client sends keepalives only when nothing comes from the daemon either, so one that listens to
// a busy subject may be silent for ever. It is closed for silence only when it has taken nothing
// meanwhile.

#include "rvd/Peer.h"

#include <algorithm>
#include <cstring>

#include "rv/error/rvCodes.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/Negotiation.h"
#include "rvd/DataLoss.h"
#include "rvd/Interest.h"

namespace kvx::rvd {

using platform::Milliseconds;
using wire::Bytes;

std::optional<Counter> counterOf(CloseReason reason) {
    switch (reason) {
        case CloseReason::PeerClosed:
        case CloseReason::OutOfMemory:
        case CloseReason::ShuttingDown:
            return std::nullopt;
        case CloseReason::NotAllowed:
            return Counter::ConnectionsNotAllowed;
        case CloseReason::TimedOut:
            return Counter::ConnectionsTimedOut;
        default:
            return Counter::ConnectionsFailed;
    }
}

void Peer::close(CloseReason reason) {
    enter(PeerState::Closed);
    actions_.close(reason);
}

void Peer::start(Milliseconds now) {
    startedAt_ = now;
    heardAt_ = now;
    tookAt_ = now;
    actions_.send(wire::encode(wire::Greeting{0, wire::kProtocolV4, 0}));
}

std::size_t Peer::receive(Bytes chunk, Milliseconds now) {
    heardAt_ = now;
    probed_ = false;
    if (state_ != PeerState::Open) received_ += chunk.size();
    while (!chunk.empty()) {
        switch (state_) {
            case PeerState::AwaitAnswer:
                if (collect(chunk, wire::kGreetingSize)) onAnswer();
                break;
            case PeerState::AwaitAgreement:
                if (collect(chunk, wire::kParameterBlockSize)) onAgreement();
                break;
            case PeerState::AwaitBlock:
                if (collect(chunk, wire::kParameterBlockSize)) onBlock();
                break;
            case PeerState::AwaitInit:
            case PeerState::Open:
                return onFrames(chunk);
            case PeerState::Closed:
                return 0;
        }
    }
    return 0;
}

// Copies bytes into `block_`; true when it holds `size` of them.
bool Peer::collect(Bytes& chunk, std::size_t size) {
    const std::size_t taken = std::min(size - blockFilled_, chunk.size());
    std::copy_n(chunk.begin(), taken, block_.begin() + static_cast<std::ptrdiff_t>(blockFilled_));
    chunk = chunk.subspan(taken);
    blockFilled_ += taken;
    if (blockFilled_ < size) return false;
    blockFilled_ = 0;
    return true;
}

void Peer::onAnswer() {
    const auto answer = wire::decodeGreeting(std::span(block_).first<wire::kGreetingSize>());
    if (answer.first != 0 || !wire::isKnownVersion(answer)) return close(CloseReason::BadGreeting);
    if (answer.version == wire::kProtocolV3) return enter(PeerState::AwaitBlock);
    actions_.send(wire::encode(wire::daemonProposal()));
    enter(PeerState::AwaitAgreement);
}

void Peer::onAgreement() {
    const auto step = wire::daemonStep(wire::decodeParameters(block_));
    actions_.send(wire::encode(step.block));
    if (step.action != wire::NegotiationStep::Action::Accepted) {
        return close(CloseReason::BadParameters);
    }
    enter(PeerState::AwaitInit);
}

void Peer::onBlock() {
    const auto step = wire::daemonStepV3(wire::decodeParameters(block_));
    if (step.action != wire::NegotiationStep::Action::Accepted) {
        return close(CloseReason::BadParameters);
    }
    actions_.send(wire::encode(step.block));
    enter(PeerState::AwaitInit);
}

std::size_t Peer::onFrames(Bytes chunk) {
    reader_.feed(chunk);
    lastSubject_ = {};
    while (state_ != PeerState::Closed) {
        if (state_ == PeerState::Open && !actions_.mayGoOn()) return reader_.unread();
        const wire::Frame frame = reader_.next();
        if (frame.kind == wire::FrameKind::None) break;
        onFrame(frame);
    }
    if (state_ == PeerState::AwaitInit && received_ > wire::kDaemonHandshakeBytes) {
        close(CloseReason::TooMuchAtOnce);
    }
    return 0;
}

void Peer::onFrame(const wire::Frame& frame) {
    switch (frame.kind) {
        case wire::FrameKind::Message:
            return onMessage(frame);
        case wire::FrameKind::Close:
            actions_.send(wire::kCloseBlock);
            return close(CloseReason::PeerClosed);
        case wire::FrameKind::Broken:
            return close(CloseReason::BadFrame);
        case wire::FrameKind::Keepalive:
        case wire::FrameKind::None:
            return;
    }
}

void Peer::onMessage(const wire::Frame& frame) {
    if (state_ == PeerState::AwaitInit) return onFirstMessage(frame.bytes);
    const wire::Routing routing = wire::readRouting(frame.bytes);
    switch (routing.type) {
        case wire::MessageType::Data:
            return onData(routing.subject, frame);
        case wire::MessageType::Listen:
            return onListen(routing.subject);
        case wire::MessageType::Cancel:
            return onCancel(routing.subject);
        case wire::MessageType::Init:
            (void)onInit(frame.bytes);
            return;
        case wire::MessageType::Reply:
        case wire::MessageType::Unknown:
            counters_.add(Counter::MessagesUnreadable);
            return;
    }
}

void Peer::onFirstMessage(Bytes message) {
    if (wire::readRouting(message).type != wire::MessageType::Init) {
        return close(CloseReason::NoInit);
    }
    if (received_ - reader_.unread() > wire::kDaemonHandshakeBytes) {
        return close(CloseReason::TooMuchAtOnce);
    }
    if (onInit(message)) enter(PeerState::Open);
}

// An init without "session" is answered; the first one that names a space opens the session. True
// when the peer is in the space that the message names.
bool Peer::onInit(Bytes message) {
    const wire::Init init = wire::readInit(message);
    const bool open = state_ == PeerState::Open;
    if (!open && !actions_.mayJoin()) {
        refuse(session_code::kNotPermitted);
        close(CloseReason::NotAllowed);
        return false;
    }
    if (!init.service || !init.network) {
        if (!open) {
            refuse(init.service ? session_code::kNetworkNotFound : session_code::kServiceNotFound);
        }
        return false;
    }
    if (!open) {
        actions_.join(*init.service, *init.network);
    } else if (!actions_.isIn(*init.service, *init.network)) {
        return false;
    }
    if (init.session) {
        actions_.named(*init.session);
    } else {
        actions_.send(wire::buildReply(address_.ipAddress, address_.ipPort).message.view());
    }
    return true;
}

void Peer::refuse(std::int32_t error) {
    actions_.send(wire::buildErrorReply(error).message.view());
}

void Peer::onData(Bytes encoded, const wire::Frame& frame) {
    counters_.add(Counter::MessagesReceived);
    counters_.add(Counter::BytesReceived, frame.bytes.size());
    if (!isLastSubject(encoded)) {
        const auto subject = SubjectView::parse(encoded.data(), encoded.size());
        if (!subject) return counters_.add(Counter::MessagesUnreadable);
        if (advisory::coversSystemSubject(*subject)) {
            return counters_.add(Counter::MessagesReserved);
        }
        const DaemonSubject own = daemonSubjectOf(*subject);
        if (own != DaemonSubject::None) return onDaemonSubject(own, frame);
        if (!frame.assembled) lastSubject_ = encoded;
    }
    actions_.publish(SubjectView::trusted(encoded.data()), payloadOf(frame));
}

// What was sent on it before need not be checked again: mostly many messages follow on one subject.
bool Peer::isLastSubject(Bytes encoded) const {
    return encoded.size() == lastSubject_.size() && !encoded.empty() &&
           std::memcmp(encoded.data(), lastSubject_.data(), encoded.size()) == 0;
}

PayloadRef Peer::payloadOf(const wire::Frame& frame) {
    return frame.assembled ? Payload::own(reader_.takeAssembled()) : Payload::borrow(frame.bytes);
}

void Peer::onDaemonSubject(DaemonSubject subject, const wire::Frame& frame) {
    switch (subject) {
        case DaemonSubject::Lost:
            return onLossReport(frame);
        case DaemonSubject::Status:
        case DaemonSubject::Sessions:
        case DaemonSubject::Subjects:
        case DaemonSubject::Trace:
        case DaemonSubject::Latency:
            return onInquiry(subject, frame);
        case DaemonSubject::None:
        case DaemonSubject::Interest:
        case DaemonSubject::Any:
            return counters_.add(Counter::MessagesReserved);
    }
}

void Peer::onLossReport(const wire::Frame& frame) {
    if (!actions_.mayReportLoss()) return counters_.add(Counter::MessagesReserved);
    const PayloadRef message = payloadOf(frame);
    const auto report = readLossReport(message->bytes());
    if (!report) return counters_.add(Counter::MessagesUnreadable);
    actions_.reportLoss(report->subject, report->lost, message);
}

void Peer::onInquiry(DaemonSubject subject, const wire::Frame& frame) {
    const auto inquiry = readInquiry(subject, frame.bytes);
    if (!inquiry) return counters_.add(Counter::MessagesUnreadable);
    counters_.add(Counter::Inquiries);
    actions_.ask(*inquiry);
}

void Peer::onListen(Bytes encoded) {
    const auto subject = SubjectView::parse(encoded.data(), encoded.size());
    if (!subject) {
        counters_.add(Counter::MessagesUnreadable);
    } else if (!actions_.listen(*subject)) {
        closeWithNotice(CloseReason::TooManyListens);
    }
}

void Peer::onCancel(Bytes encoded) {
    const auto subject = SubjectView::parse(encoded.data(), encoded.size());
    if (subject) {
        actions_.cancel(*subject);
    } else {
        counters_.add(Counter::MessagesUnreadable);
    }
}

void Peer::tick(Milliseconds now) {
    switch (state_) {
        case PeerState::AwaitAnswer:
        case PeerState::AwaitAgreement:
        case PeerState::AwaitBlock:
        case PeerState::AwaitInit:
            if (now - startedAt_ >= wire::kDaemonHandshakeMs) close(CloseReason::TimedOut);
            return;
        case PeerState::Open:
            return checkSilence(now);
        case PeerState::Closed:
            return;
    }
}

void Peer::checkSilence(Milliseconds now) {
    if (now - std::max(heardAt_, tookAt_) >= wire::kDaemonSilenceMs) {
        return close(CloseReason::TimedOut);
    }
    if (now - heardAt_ < wire::kDaemonProbeMs || probed_) return;
    probed_ = true;
    counters_.add(Counter::KeepalivesSent);
    actions_.send(wire::kKeepaliveBlock);
}

void Peer::shutDown() {
    closeWithNotice(CloseReason::ShuttingDown);
}

void Peer::end(CloseReason reason) {
    reader_ = {};
    closeWithNotice(reason);
}

void Peer::closeWithNotice(CloseReason reason) {
    switch (state_) {
        case PeerState::AwaitInit:
        case PeerState::Open:
            actions_.send(wire::kCloseBlock);
            return close(reason);
        case PeerState::AwaitAnswer:
        case PeerState::AwaitAgreement:
        case PeerState::AwaitBlock:
            return close(reason);
        case PeerState::Closed:
            return;
    }
}

// Times are of the system's monotonic clock, which both daemons read.
void Peer::save(StateWriter& state) const {
    state.number(static_cast<std::uint64_t>(state_));
    state.bytes(block_);
    state.number(blockFilled_);
    state.bytes(reader_.incomplete());
    state.number(received_);
    state.number(static_cast<std::uint64_t>(startedAt_));
    state.number(static_cast<std::uint64_t>(heardAt_));
    state.number(static_cast<std::uint64_t>(tookAt_));
    state.boolean(probed_);
}

void Peer::restore(StateReader& state) {
    state.into(state_);
    const Bytes block = state.bytes();
    if (block.size() != block_.size()) throw StateError("a peer is not sound");
    std::ranges::copy(block, block_.begin());
    state.into(blockFilled_);
    reader_.feed(state.bytes());
    if (reader_.next().kind != wire::FrameKind::None || blockFilled_ > block_.size()) {
        throw StateError("a peer is not sound");
    }
    state.into(received_);
    state.into(startedAt_);
    state.into(heardAt_);
    state.into(tookAt_);
    probed_ = state.boolean();
}

}  // namespace kvx::rvd
