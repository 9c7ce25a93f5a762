// Every call posts what it wants to the client's loop and waits for what comes of it. What waits
// there for an answer is a `Waiting` of the loop: it is in the loop's set until it has finished,
// and owns itself.

#include "kvx/Client.h"

#include <algorithm>
#include <utility>

#include "kvx/Answer.h"
#include "kvx/ClientLoop.h"
#include "kvx/ZeroByte.h"
#include "rv/error/rvCodes.h"

namespace kvx {

namespace {

using detail::Answer;
using detail::ClientLoop;
using detail::hasZero;
using Milliseconds = std::chrono::milliseconds;

Error ended(std::string tried) {
    return {Errc::Ended, "the client has ended", std::move(tried)};
}

Error lost(std::string tried) {
    return {Errc::Lost, "the bus daemon is away", std::move(tried)};
}

Error waitsForItself(std::string tried) {
    return {Errc::InvalidArgument, "a call on the client's own thread cannot wait",
            std::move(tried)};
}

constexpr Milliseconds kLongest = std::chrono::hours(24);

Error badTimeout(std::string tried) {
    return {Errc::InvalidArgument, "the time-out is not above 0", std::move(tried)};
}

Error zeroByte(std::string tried) {
    return {Errc::InvalidArgument, "a zero byte in the text or subject", std::move(tried)};
}

// Why the bus refused, by the code of its status.
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

// A promise that is kept, with `otherwise`, also when the loop drops what would keep it.
template <class T>
class Promised {
  public:
    Promised(std::promise<T> promise, T otherwise)
        : promise_(std::move(promise)), otherwise_(std::move(otherwise)) {}
    ~Promised() {
        if (!isTaken_) promise_.set_value(std::move(otherwise_));
    }
    Promised(const Promised&) = delete;
    Promised& operator=(const Promised&) = delete;

    std::promise<T> take() {
        isTaken_ = true;
        return std::move(promise_);
    }

  private:
    std::promise<T> promise_;
    T otherwise_;
    bool isTaken_ = false;
};

// What is sent with an inbox as its reply subject, and what comes there, until it has finished or
// nothing came for the time-out. Owns itself.
class Exchange : public RvDataCallback, public RvTimerCallback, public ClientLoop::Waiting {
  public:
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    ~Exchange() override {
        loop_.waiting.erase(this);
        if (gone_ != nullptr) *gone_ = true;
    }

    /// Starts it; on failure it has failed.
    void send(const std::string& subject, const RvMsg& message) {
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

    void onTimer(RvTimer*) override { fail(Errc::TimedOut); }

  protected:
    Exchange(ClientLoop& loop, std::string tried, Milliseconds timeout)
        : tried_(std::move(tried)), timeout_(timeout), loop_(loop) {
        loop_.waiting.insert(this);
    }

    void waitAgain() { idle_->resetInterval(interval()); }

    [[nodiscard]] std::string textOf(Errc code) const {
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

    const std::string tried_;
    const Milliseconds timeout_;

  private:
    [[nodiscard]] unsigned long interval() const {
        return static_cast<unsigned long>(std::min(timeout_, kLongest).count());
    }

    ClientLoop& loop_;
    std::unique_ptr<RvTimer> idle_;
    std::unique_ptr<RvListener> inbox_;
    bool* gone_ = nullptr;  // set by the destructor during a send
};

class QueryExchange : public Exchange {
  public:
    QueryExchange(ClientLoop& loop, std::string tried, Milliseconds timeout,
                  std::promise<QueryResult> promise)
        : Exchange(loop, std::move(tried), timeout), promise_(std::move(promise)) {}

    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        switch (answer_.take(data)) {
            case Answer::State::Foreign:
                return;
            case Answer::State::Waiting:
                return waitAgain();
            case Answer::State::TooLarge:
                return finish(answer_.failure(Errc::Partial, Answer::kBound, tried_));
            case Answer::State::Complete:
                return finish(answer_.result(tried_));
            case Answer::State::Mixed:
                return finish(answer_.failure(Errc::MixedAnswers,
                                              "its packets are not 1 to N, each once", tried_));
        }
    }

    void fail(Errc code) override {
        std::string text = textOf(code);
        if (code == Errc::TimedOut && !answer_.isEmpty()) {
            code = Errc::Partial;
            text += " after " + std::to_string(answer_.packets()) + " packets";
        }
        finish(answer_.failure(code, std::move(text), tried_));
    }

  private:
    void finish(QueryResult result) {
        std::promise<QueryResult> promise = std::move(promise_);
        delete this;
        promise.set_value(std::move(result));
    }

    std::promise<QueryResult> promise_;
    Answer answer_;
};

class RequestExchange : public Exchange {
  public:
    RequestExchange(ClientLoop& loop, std::string tried, Milliseconds timeout,
                    std::promise<Result<Message>> promise)
        : Exchange(loop, std::move(tried), timeout), promise_(std::move(promise)) {}

    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        if (data.type() == RVMSG_MSG) finish(Message(static_cast<const RvMsg&>(data)));
    }

    void fail(Errc code) override { finish(tl::unexpected(Error{code, textOf(code), tried_})); }

  private:
    void finish(Result<Message> result) {
        std::promise<Result<Message>> promise = std::move(promise_);
        delete this;
        promise.set_value(std::move(result));
    }

    std::promise<Result<Message>> promise_;
};

}  // namespace

// --- Subscriptions ---------------------------------------------------------------------------

class Subscription::State : public RvDataCallback {
  public:
    using Received = std::function<void(const char*, RvSender*, const RvDatum&)>;

    State(std::shared_ptr<ClientLoop> loop, Received received)
        : loop_(std::move(loop)), received_(std::make_shared<Received>(std::move(received))) {}

    /// Loop thread only. Why it cannot listen; nothing when it does.
    std::optional<Errc> start(const std::string& subject) {
        int status = kOk;
        std::unique_ptr<RvListener> listener(
            loop_->net->RRNNewListener(&status, subject.c_str(), this, nullptr));
        if (listener) {
            loop_->listeners[this] = std::move(listener);
            return std::nullopt;
        }
        return codeOf(loop_->net->m_session->status());
    }

    /// Ends it: on the loop thread at once, else when the loop has done it or has ended.
    void end() {
        if (!loop_->perform([this] { loop_->listeners.erase(this); })) loop_->waitForEnd();
    }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        const auto received = received_;  // it may end this subscription
        (*received)(subject, replyTo, data);
    }

  private:
    const std::shared_ptr<ClientLoop> loop_;
    const std::shared_ptr<Received> received_;
};

Subscription::Subscription(std::shared_ptr<State> state) : state_(std::move(state)) {}

Subscription& Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        const Subscription ending(std::move(*this));
        state_ = std::move(other.state_);
    }
    return *this;
}

Subscription::~Subscription() {
    if (state_) state_->end();
}

// --- The client ------------------------------------------------------------------------------

Client::Client(std::shared_ptr<ClientLoop> loop) : loop_(std::move(loop)) {}

Client& Client::operator=(Client&& other) noexcept {
    if (this != &other) {
        const Client ending(std::move(*this));
        loop_ = std::move(other.loop_);
    }
    return *this;
}

Client::~Client() {
    if (loop_) loop_->end();
}

void Client::end() {
    loop_->end();
}

Result<Client> Client::open(Options options) {
    if (options.timeout <= Milliseconds(0)) return tl::unexpected(badTimeout("open"));
    if (hasZero(options.domain)) return tl::unexpected(zeroByte("open"));
    auto loop = std::make_shared<ClientLoop>(std::move(options));
    Client client(loop);
    if (auto started = loop->start(); !started) return tl::unexpected(std::move(started.error()));
    return client;
}

Result<Client> Client::open() {
    return open(Options());
}

bool Client::isConnected() const {
    return loop_->isConnected();
}

std::string Client::inDomain(std::string_view subject) const {
    return loop_->inDomain(subject);
}

std::future<QueryResult> Client::queryAsync(const ServiceName& service, std::string_view text,
                                            std::optional<Milliseconds> timeout) {
    std::promise<QueryResult> promise;
    std::future<QueryResult> result = promise.get_future();
    const std::string tried = "query " + service.text();
    auto guarded = std::make_shared<Promised<QueryResult>>(
        std::move(promise), tl::unexpected(QueryError{ended(tried), {}}));
    const Milliseconds wait = timeout.value_or(loop_->options.timeout);
    if (hasZero(text) || wait <= Milliseconds(0)) {
        Error error = hasZero(text) ? zeroByte(tried) : badTimeout(tried);
        guarded->take().set_value(tl::unexpected(QueryError{std::move(error), {}}));
        return result;
    }
    if (loop_->isLost()) {
        guarded->take().set_value(tl::unexpected(QueryError{lost(tried), {}}));
        return result;
    }
    loop_->post([loop = loop_.get(), guarded, tried, subject = inDomain(service.querySubject()),
                 message = CVekQryInfo::RQIMessage(std::string(text).c_str()), wait] {
        (new QueryExchange(*loop, tried, wait, guarded->take()))->send(subject, message);
    });
    return result;
}

QueryResult Client::query(const ServiceName& service, std::string_view text,
                          std::optional<Milliseconds> timeout) {
    if (loop_->isLoopThread()) {
        return tl::unexpected(QueryError{waitsForItself("query " + service.text()), {}});
    }
    return queryAsync(service, text, timeout).get();
}

QueryResult Client::query(std::string_view service, std::string_view text,
                          std::optional<Milliseconds> timeout) {
    const auto name = ServiceName::of(service);
    if (!name) return tl::unexpected(QueryError{name.error(), {}});
    return query(*name, text, timeout);
}

Result<Message> Client::request(std::string_view subject, const Message& message,
                                std::optional<Milliseconds> timeout) {
    const std::string to(subject);
    const std::string tried = "request on " + to;
    const Milliseconds wait = timeout.value_or(loop_->options.timeout);
    if (hasZero(subject)) return tl::unexpected(zeroByte(tried));
    if (wait <= Milliseconds(0)) return tl::unexpected(badTimeout(tried));
    if (loop_->isLoopThread()) return tl::unexpected(waitsForItself(tried));
    if (loop_->isLost()) return tl::unexpected(lost(tried));
    std::promise<Result<Message>> promise;
    std::future<Result<Message>> result = promise.get_future();
    auto guarded = std::make_shared<Promised<Result<Message>>>(std::move(promise),
                                                               tl::unexpected(ended(tried)));
    loop_->post([loop = loop_.get(), guarded, tried, to, sent = message.base(), wait] {
        (new RequestExchange(*loop, tried, wait, guarded->take()))->send(to, sent);
    });
    guarded.reset();
    return result.get();
}

Result<> Client::publish(std::string_view subject, const Message& message) {
    const std::string to(subject);
    const std::string tried = "publish on " + to;
    if (hasZero(subject)) return tl::unexpected(zeroByte(tried));
    if (loop_->isLost()) return tl::unexpected(lost(tried));
    RvStatus status;
    const bool isDone = loop_->perform([&] {
        int made = kOk;
        const std::unique_ptr<RvSender> sender(
            loop_->net->RRNNewSender(&made, to.c_str(), nullptr));
        status = sender ? sender->send(message.base()) : loop_->net->m_session->status();
    });
    if (!isDone) return tl::unexpected(ended(tried));
    if (status == RvStatus(0)) return {};
    return tl::unexpected(Error{codeOf(status), status.text(), tried});
}

Result<Subscription> Client::subscribe(
    std::string_view subject,
    std::function<void(const char*, RvSender*, const RvDatum&)> received) {
    const std::string on(subject);
    const std::string tried = "listen on " + on;
    if (hasZero(subject)) return tl::unexpected(zeroByte(tried));
    auto state = std::make_shared<Subscription::State>(loop_, std::move(received));
    std::optional<Errc> failure;
    if (!loop_->perform([&] { failure = state->start(on); })) return tl::unexpected(ended(tried));
    if (!failure) return Subscription(std::move(state));
    return tl::unexpected(Error{*failure, "no subject that can be listened on", tried});
}

Result<Subscription> Client::listen(std::string_view subject,
                                    std::function<void(const Delivery&)> received) {
    return subscribe(subject, [received = std::move(received)](const char* on, RvSender* replyTo,
                                                               const RvDatum& data) {
        if (data.type() != RVMSG_MSG) return;
        const Message message(static_cast<const RvMsg&>(data));
        received({on, replyTo != nullptr ? replyTo->subject() : "", message});
    });
}

Result<Subscription> Client::snoop(const ServiceName& service,
                                   std::function<void(const Record&)> changed) {
    return subscribe(inDomain(service.notifySubject()),
                     [changed = std::move(changed)](const char*, RvSender*, const RvDatum& data) {
                         for (const Record& record : detail::recordsOf(data)) changed(record);
                     });
}

}  // namespace kvx
