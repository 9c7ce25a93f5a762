// The member whose packet comes first is the one that is listened to. It is granted packets as the
// sink takes them, and is told when the answer ends before its last packet; another one is told to
// end at once. While the next packet waits for the sink, the time-out does not count.
//
// Whatever is sent may find the connection lost, which fails all exchanges, this one too: a send is
// the last thing that is done with a member.

#include "kvx/Exchange.h"

#include <algorithm>
#include <utility>

#include "kvx/Conversation.h"
#include "rv/error/rvCodes.h"

namespace kvx::detail {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kLongest = std::chrono::hours(24);

void endAnswer(ClientLoop& loop, const std::string& answerer, std::string inbox) {
    if (answerer.empty()) return;
    loop.send(answerer, conversation::takeMessage({std::move(inbox), 0}));
}

}  // namespace

Errc codeOf(const RvStatus& status) {
    switch (status.code()) {
        case session_code::kInvalidSession:
        case session_code::kNotConnected:
            return Errc::Lost;
        case session_code::kNoMemory:
            return Errc::QueueFull;
        default:
            return Errc::InvalidArgument;
    }
}

Exchange::Exchange(ClientLoop& loop, std::string tried, Milliseconds timeout)
    : tried_(std::move(tried)), timeout_(timeout), loop_(loop) {
    loop_.waiting.insert(this);
}

Exchange::~Exchange() {
    loop_.waiting.erase(this);
    loop_.wakeCaller();
    if (gone_ != nullptr) *gone_ = true;
}

void Exchange::send(const std::string& subject, const RvMsg& message) {
    int status = kOk;
    idle_.reset(loop_.net->RRNNewTimer(&status, interval(), rv_TRUE, this, nullptr));
    const std::unique_ptr<RvSender> sender(
        loop_.net->RRNNewSender(&status, subject.c_str(), nullptr));
    bool gone = false;
    gone_ = &gone;
    std::unique_ptr<RvListener> inbox(sender ? sender->sendRequest(message, 0, this, nullptr)
                                             : nullptr);
    if (gone) return;  // the send found the connection lost, which fails all that waits
    gone_ = nullptr;
    inbox_ = std::move(inbox);
    if (!idle_ || !inbox_) fail(codeOf(loop_.net->m_session->status()));
}

// While the loop did not run, what came could not be taken.
void Exchange::onTimer(RvTimer*) {
    const Milliseconds left = timeout_ - loop_.runsFor();
    if (left <= Milliseconds(0)) return onSilence();
    idle_->resetInterval(static_cast<unsigned long>(left.count()));
}

std::string Exchange::textOf(Errc code) const {
    switch (code) {
        case Errc::TimedOut:
            return "nothing came for " + std::to_string(timeout_.count()) + " ms";
        case Errc::Ended:
            return "the client has ended";
        case Errc::Lost:
            return "the bus daemon is away";
        case Errc::QueueFull:
            return "too much waits to be sent";
        default:
            return "the subject is not one that can be sent to";
    }
}

unsigned long Exchange::interval() const {
    return static_cast<unsigned long>(std::min(timeout_, kLongest).count());
}

AnswerExchange::AnswerExchange(ClientLoop& loop, std::string tried, Milliseconds timeout,
                               std::shared_ptr<AnswerSink> sink)
    : Exchange(loop, std::move(tried), timeout),
      sink_(std::move(sink)),
      granted_(conversation::kFirstWindow) {
    sink_->filledBy(this);
}

AnswerExchange::~AnswerExchange() {
    sink_->filledBy(nullptr);
}

void AnswerExchange::ask(const std::string& subject, RvMsg question) {
    question.append(conversation::kWindowField, conversation::kFirstWindow);
    send(subject, question);
}

void AnswerExchange::onData(const char*, RvSender* replyTo, const RvDatum& data, RvListener*) {
    const char* const inbox = replyTo != nullptr ? replyTo->subject() : nullptr;
    const std::string from = inbox != nullptr ? inbox : "";
    !answerer_ || *answerer_ == from ? take(data, from) : ignore(data, from);
}

void AnswerExchange::take(const RvDatum& data, const std::string& from) {
    const Answer::State state = answer_.take(data, !from.empty());
    if (state == Answer::State::Foreign) return;
    answerer_ = from;
    Packets next = answer_.takeNext();
    passed_ += next.count;
    const std::size_t taken = sink_->take(std::move(next), answer_.totals());
    if (taken == 0) loop().wakeCaller();
    switch (state) {
        case Answer::State::Foreign:
            return;
        case Answer::State::Waiting:
            waitAgain();
            return taken == 0 ? void() : took(taken, 0);
        case Answer::State::TooLarge:
            return finish(Errc::Partial, Answer::kBound);
        case Answer::State::Complete:
            answerer_.reset();  // it has no more to send
            return finish(answer_.failure(tried_));
        case Answer::State::Mixed:
            return finish(Errc::MixedAnswers, "its packets are not 1 to N, each once");
    }
}

void AnswerExchange::ignore(const RvDatum& data, const std::string& from) {
    if (!headerOf(data)) return;
    answer_.countIgnored();
    // The function that is called may use the client, and so end this.
    ClientLoop& loop = this->loop();
    std::string own = inbox();
    if (!std::exchange(hasWarned_, true) && loop.options.onWarning) {
        loop.options.onWarning(tried_ + ": " + (from.empty() ? "one without an inbox" : from) +
                               " answered too; its packets are ignored");
    }
    endAnswer(loop, from, std::move(own));
}

void AnswerExchange::took(std::size_t count, std::size_t cost) {
    taken_ += count;
    answer_.release(cost);
    grant();
}

void AnswerExchange::grant() {
    if (answerer_->empty() || granted_ >= taken_ + conversation::kWindow / 2) return;
    granted_ = taken_ + conversation::kWindow;
    waitAgain();
    loop().send(*answerer_,
                conversation::takeMessage({inbox(), static_cast<std::uint32_t>(granted_)}));
}

void AnswerExchange::onSilence() {
    const bool waitsForSink = passed_ > taken_ && answer_.packets() >= granted_;
    if (!waitsForSink || answerer_->empty()) fail(Errc::TimedOut);
}

void AnswerExchange::fail(Errc code) {
    const bool isPartial = code == Errc::TimedOut && answer_.packets() != 0;
    finish(isPartial ? Errc::Partial : code, textOf(code));
}

void AnswerExchange::cancel() {
    finish(Errc::Ended, "cancelled");
}

void AnswerExchange::finish(Errc code, std::string text) {
    finish(QueryError{{code, std::move(text), tried_}, {}});
}

void AnswerExchange::finish(std::optional<QueryError> error) {
    ClientLoop& loop = this->loop();
    const std::shared_ptr<AnswerSink> sink = sink_;
    const std::string answerer = error ? answerer_.value_or("") : "";
    std::string own = inbox();
    sink->take(answer_.takeRest(), answer_.totals());
    delete this;
    sink->end(std::move(error));
    endAnswer(loop, answerer, std::move(own));
}

}  // namespace kvx::detail
