// A connection as a member of its space: what it listens to, sends, is told and asks.
//
// A message is routed within the turn of its sender: what is left when the slice is over is in
// `routing_`, and nothing more of that sender is read until it has reached everybody. What a
// session is told of interest and what it has asked are written piece by piece in its own turns,
// each piece when little of it waits.

#include <algorithm>
#include <string>
#include <utility>

#include "platform/Process.h"
#include "rvd/Connection.h"

namespace kvx::rvd {
namespace {

// A snapshot of interest goes on while no more waits, as a part of the queue and in bytes.
constexpr std::size_t kTellingParts = 4;
constexpr std::size_t kTellingBytes = 256 * 1024;
// Characters of a text in reports.
constexpr std::size_t kReportedText = 128;

}  // namespace

Connection::Routing::Routing(Router& router, const Router::Session& from, SubjectView subject,
                             const PayloadRef& routed, PayloadRef lossNotice)
    : match(router, from, subject),
      message(routed),
      notice(std::move(lossNotice)),
      subjectAt(static_cast<std::size_t>(static_cast<const std::uint8_t*>(subject.data()) -
                                         routed->bytes().data())) {}

void Connection::join(std::string_view service, std::string_view network) {
    session_ = &context_.router.join(service, network, *this);
    context_.announced(*this);
    if (context_.log.enabled(platform::LogLevel::Debug)) {
        context_.log.debug(name_ + " joins service '" + std::string(service) + "' network '" +
                           std::string(network) + "'");
    }
}

bool Connection::listen(SubjectView subject) {
    if (session_ == nullptr) return true;
    const bool isListening = context_.router.listen(*session_, subject);
    context_.account.setOrphaned(context_.router.orphanedBytes());  // it undoes some
    if (!isListening) return false;
    if (session_->isTold()) outbox_.nameDropped();
    setCharge(Holding::Listens, session_->listenBytes());
    return true;
}

void Connection::cancel(SubjectView subject) {
    if (session_ == nullptr) return;
    context_.router.cancel(*session_, subject);
    setCharge(Holding::Listens, session_->listenBytes());
}

void Connection::publish(SubjectView subject, const PayloadRef& message) {
    if (session_ == nullptr) return;
    ++published_.messages;
    published_.bytes += message->size();
    context_.batch.hold(message);
    const auto counted = watch(subject, message);
    if (const auto known = context_.router.lastMatch(*session_, subject)) {
        context_.busy.reached(counted, subject, known->size());
        handOn(message, *known);
        if (known->empty()) context_.counters.add(Counter::MessagesUnmatched);
        return;
    }
    routing_ =
        std::make_unique<Routing>(context_.router, *session_, subject, message, PayloadRef());
    routing_->counted = counted;
    goOnRouting();
}

// What others may want to know of it later. Returns where it is counted.
BusySubjects::Place Connection::watch(SubjectView subject, const PayloadRef& message) {
    if (context_.recorder) {
        context_.recorder->record(*session_, number_, subject, message->bytes(), arrivedAt_);
    }
    const bool isSampled = context_.busy.isNext();
    message->setDelayMark(context_.delays.mark(*session_, subject, isSampled, arrivedAt_));
    if (!isSampled) return 0;
    return context_.busy.count(*session_, number_, subject, message->bytes(), now());
}

// Its message is kept, and charged, when it has not reached everybody in this turn.
void Connection::goOnRouting() {
    const PayloadRef message = routing_->message;
    route();
    if (routing_) message->chargeTo(context_.account);
}

// Those who would have got the messages are told.
void Connection::reportLoss(SubjectView subject, std::uint64_t lost, const PayloadRef& message) {
    if (session_ == nullptr) return;
    const auto link = static_cast<std::uint8_t>(LossCause::Link);
    auto notice = Payload::copy(buildDataLoss({lost, 0, link}));
    context_.batch.hold(message);
    routing_ =
        std::make_unique<Routing>(context_.router, *session_, subject, message, std::move(notice));
    goOnRouting();
}

// Whether it goes on with a snapshot now: little waits to be written.
bool Connection::mayTell() const {
    return session_ != nullptr && Router::hasMoreToTell(*session_) &&
           outbox_.waitingBytes() <= std::min(context_.queueLimit / kTellingParts, kTellingBytes);
}

void Connection::tellMore() {
    while (mayTell() && !context_.line.isOver(Line::kStepsPerLook)) Router::tellMore(*session_);
}

// Whose queue has lost something is told everything again, as soon as there is room.
void Connection::refreshTold() {
    const bool hasRoom = outbox_.waitingBytes() <= context_.queueLimit / kTellingParts;
    if (session_ == nullptr || !session_->isTold() || !hasRoom) return;
    context_.router.refresh(*session_, outbox_.totals().dropped);
    if (mayTell()) context_.line.join(*this);
}

// What a session asks that has too many questions waiting is not answered.
void Connection::ask(const Inquiry& inquiry) {
    if (session_ == nullptr) return;
    auto report = mayAsk_ ? context_.reports.answer(inquiry, *session_) : Reports::refusal();
    if (!answers_) answers_ = std::make_unique<Answers>();
    if (report && answers_->add(inquiry, std::move(report))) context_.batch.add(*this);
}

// An answer does not wait behind messages, but its parts for one another.
bool Connection::mayAnswer() const {
    return answers_ && !answers_->empty() && held(Holding::Control) < Outbox::kControlLimit / 2;
}

void Connection::answer() {
    while (mayAnswer() && !context_.line.isOver(Line::kStepsPerLook)) {
        const auto message = answers_->next();
        if (!message.empty() && !outbox_.pushAhead(message)) return fail(UV_ENOBUFS);
    }
}

void Connection::handOn(const PayloadRef& message, std::span<Receiver* const> receivers) {
    for (Receiver* receiver : receivers) receiver->deliver(message);
    (void)context_.line.isOver(receivers.size());
}

// Until the message has reached everybody or the turn is over.
void Connection::route() {
    // Those whom it has not reached cannot be told: it ends as if it had not been read.
    if (routing_->message->isLost()) return outOfMemory();
    bool isOver = false;
    while (!isOver) {
        const auto found = routing_->match.advance(routing_->subject(), context_.stepsAtOnce);
        handOn(routing_->notice ? routing_->notice : routing_->message, found);
        if (routing_->notice) context_.counters.add(Counter::LossNotices, found.size());
        routing_->reached += found.size();
        if (routing_->match.isDone()) {
            context_.busy.reached(routing_->counted, routing_->subject(), routing_->reached);
            if (!routing_->match.hasFound()) context_.counters.add(Counter::MessagesUnmatched);
            break;
        }
        isOver = context_.line.isOver(Line::kStepsPerLook);
    }
    if (!isOver) routing_.reset();
}

SessionFacts Connection::facts() const {
    SessionFacts facts;
    facts.number = number_;
    facts.name = sessionName_;
    facts.address = name_;
    if (const auto process = peerIdentity()) {
        facts.pid = process->pid;
        facts.user = std::to_string(process->uid);
        facts.program = platform::programName(process->pid).value_or("");
    }
    facts.age = now() - acceptedAt_;
    facts.memory = held();
    facts.waiting = outbox_.waitingMessages();
    facts.waitingBytes = outbox_.waitingBytes();
    facts.totals = outbox_.totals();
    facts.published = published_;
    facts.publishedRate = publishedRate_;
    facts.deliveredRate = pace_.rate();
    if (pace_.waitingSince()) facts.waitingFor = now() - *pace_.waitingSince();
    if (pace_.behindSince()) facts.behindFor = now() - *pace_.behindSince();
    if (pace_.lossAt()) facts.lossAge = now() - *pace_.lossAt();
    if (session_ == nullptr) return facts;
    facts.service = session_->service().substr(0, kReportedText);
    facts.network = session_->network().substr(0, kReportedText);
    facts.follows = session_->isTold();
    facts.listens = session_->listens();
    facts.patterns = session_->patterns();
    return facts;
}

void Connection::leaveSession() {
    routing_.reset();
    answers_.reset();
    if (session_ == nullptr) return;
    context_.delays.forget(*session_);
    context_.router.leave(*std::exchange(session_, nullptr));
    setCharge(Holding::Listens, 0);
    context_.account.setOrphaned(context_.router.orphanedBytes());
}

}  // namespace kvx::rvd
