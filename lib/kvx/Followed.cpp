// Whatever calls a function of the user may be the last thing that this object does: the function
// may end it. So each way in from the bus holds the object, and `isOver_` keeps what is still to be
// told from being told.

#include "kvx/Followed.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kvx/Conversation.h"

namespace kvx::detail {

namespace {

constexpr const char* kLossSubject = "_RV.WARN.SYSTEM.DATALOSS";
constexpr std::chrono::milliseconds kFirstWait{100};
// A history is small, or refused; its question is lost when the service comes back to the daemon
// after this client.
constexpr std::chrono::milliseconds kForHistory{2000};

// The notices in packets that all have a stamp.
std::vector<FollowState::Notice> noticesIn(Packets packets) {
    std::vector<FollowState::Notice> notices;
    auto row = packets.rows.begin();
    for (const StampedRows& one : packets.stamped) {
        const auto end = row + static_cast<std::ptrdiff_t>(one.rows);
        notices.push_back(
            {one.stamp, Rows(std::move_iterator(row), std::move_iterator(end)), packets.cost});
        row = end;
    }
    return notices;
}

// The one stamp of all packets; nothing when they have not one.
std::optional<Stamp> stampOf(const Packets& packets) {
    const auto& all = packets.stamped;
    if (all.empty() || all.size() != packets.count) return std::nullopt;
    const bool isOne = std::ranges::all_of(
        all, [&](const StampedRows& one) { return one.stamp == all.front().stamp; });
    return isOne ? std::optional(all.front().stamp) : std::nullopt;
}

}  // namespace

std::chrono::milliseconds Pace::next(Clock::time_point now) {
    const bool isQuiet = now - due_ > 2 * wait_ + kFirstWait;
    const auto wait = isQuiet ? std::chrono::milliseconds(0) : std::max(wait_, kFirstWait);
    due_ = now + wait;
    wait_ = std::min(2 * wait, longest_);
    return wait;
}

// Collects the packets of an answer.
class Followed::Collected : public AnswerSink {
  public:
    explicit Collected(std::weak_ptr<Followed> owner) : owner_(std::move(owner)) {}

    void filledBy(AnswerExchange* exchange) override {
        if (const auto owner = owner_.lock()) owner->exchange_ = exchange;
    }
    std::size_t take(Packets packets, const AnswerTotals&) override {
        const std::size_t count = packets.count;
        append(all_, packets);
        return count;
    }
    void end(std::optional<QueryError> error) override {
        if (const auto owner = owner_.lock()) owner->onAnswered(std::move(all_), std::move(error));
    }

  private:
    const std::weak_ptr<Followed> owner_;
    Packets all_;
};

Followed::Followed(std::shared_ptr<ClientLoop> loop, What what, Follower follower)
    : loop_(std::move(loop)), what_(std::move(what)), follower_(std::move(follower)) {}

Followed::~Followed() = default;

std::optional<Errc> Followed::start() {
    if (!listen(this, what_.notifySubject) || !listen(&wanted_, kLossSubject)) {
        loop_->listeners.erase(this);
        return codeOf(loop_->net->m_session->status());
    }
    loop_->watchers[this] = shared_from_this();
    state_.start();
    return std::nullopt;
}

bool Followed::listen(const void* key, const std::string& subject) {
    int status = kOk;
    std::unique_ptr<RvListener> listener(
        loop_->net->RRNNewListener(&status, subject.c_str(), this, nullptr));
    const bool isThere = listener != nullptr;
    if (isThere) loop_->listeners[key] = std::move(listener);
    return isThere;
}

void Followed::end() {
    if (!loop_->perform([this] { stop(); })) loop_->waitForEnd();
}

void Followed::stop() {
    if (std::exchange(isOver_, true)) return;
    const auto self = shared_from_this();
    loop_->listeners.erase(this);
    loop_->listeners.erase(&wanted_);
    loop_->watchers.erase(this);
    wait_.reset();
    if (exchange_ != nullptr) exchange_->cancel();
}

void Followed::onLoopEnd() {
    if (isOver_) return;
    onFailure({Errc::Ended, "the client has ended", {}});
}

void Followed::onConnection(bool isThere) {
    if (!isThere || isOver_) return;
    if (wanted_) return send();
    state_.onLoss();
}

void Followed::onData(const char* subject, RvSender*, const RvDatum& data, RvListener*) {
    const auto self = shared_from_this();
    if (std::string_view(subject) == kLossSubject) return state_.onLoss();
    Answer notice;
    if (notice.take(data, false) != Answer::State::Complete) return;
    const bool isWhole = !notice.failure({});
    for (FollowState::Notice& one : noticesIn(notice.takeRest())) {
        if (!isWhole) one.changes.clear();  // the history has it, if anything has
        state_.onNotice(std::move(one));
    }
}

void Followed::ask(FollowState::Question question) {
    if (isOver_) return;
    wanted_ = question;
    Pace& pace = question == FollowState::Question::Query ? queries_ : histories_;
    const auto wait = std::max(pace.next(Pace::Clock::now()), std::chrono::milliseconds(1));
    int status = kOk;
    wait_.reset(loop_->net->RRNNewTimer(&status, static_cast<unsigned long>(wait.count()), rv_FALSE,
                                        this, nullptr));
}

void Followed::onTimer(RvTimer*) {
    const auto self = shared_from_this();
    // Without a connection it waits for its return.
    if (wanted_ && !isOver_ && loop_->isConnected()) send();
}

void Followed::send() {
    asked_ = *std::exchange(wanted_, std::nullopt);
    const bool isQuery = asked_ == FollowState::Question::Query;
    const RvMsg question =
        isQuery ? CVekQryInfo::RQIMessage(what_.text.c_str()) : historyQuestion(state_.at());
    const auto timeout = isQuery ? what_.timeout : std::min(what_.timeout, kForHistory);
    auto sink = std::make_shared<Collected>(weak_from_this());
    (new AnswerExchange(*loop_, what_.tried, timeout, std::move(sink)))
        ->ask(what_.querySubject, question);
}

void Followed::onAnswered(Packets packets, std::optional<QueryError> error) {
    if (isOver_ || (error && error->code == Errc::Ended)) return;
    if (error) return state_.onQuestionFailed(*error);
    if (asked_ == FollowState::Question::History) {
        return state_.onHistory(noticesIn(std::move(packets)));
    }
    FollowState::AnswerRows answer{{}, stampOf(packets), packets.source.value_or(RowSource())};
    answer.rows = std::move(packets.rows);
    state_.onAnswer(std::move(answer));
}

// --- What the state tells ----------------------------------------------------------------------

void Followed::onRow(const Record& row) {
    if (!isOver_ && follower_.onRow) follower_.onRow(row);
}

void Followed::onChange(const Record& change) {
    if (!isOver_ && follower_.onChange) follower_.onChange(change);
}

void Followed::onResynchronised(std::span<const Record> differences) {
    if (isOver_) return;
    if (follower_.onResynchronised) return follower_.onResynchronised(differences);
    for (const Record& difference : differences) onChange(difference);
}

void Followed::onFailure(const Error& error) {
    const auto self = shared_from_this();
    stop();
    if (follower_.onEnd) follower_.onEnd({error.code, error.text, what_.tried});
}

}  // namespace kvx::detail

namespace kvx {

Following::Following(std::shared_ptr<detail::Followed> followed) : followed_(std::move(followed)) {}

Following& Following::operator=(Following&& other) noexcept {
    if (this != &other) {
        const Following ending(std::move(*this));
        followed_ = std::move(other.followed_);
    }
    return *this;
}

Following::~Following() {
    if (followed_) followed_->end();
}

}  // namespace kvx
