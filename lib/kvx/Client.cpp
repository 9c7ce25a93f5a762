// Every call posts what it wants to the client's loop and waits for what comes of it. What waits
// there for an answer is a `Waiting` of the loop: it is in the loop's set until it has finished,
// and owns itself.

#include "kvx/Client.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kvx/ClientLoop.h"
#include "kvx/Domain.h"
#include "kvx/Exchange.h"
#include "kvx/Followed.h"
#include "kvx/StreamState.h"
#include "kvx/ZeroByte.h"

namespace kvx {

namespace {

using detail::AnswerExchange;
using detail::AnswerSink;
using detail::ClientLoop;
using detail::codeOf;
using detail::ended;
using detail::Exchange;
using detail::hasZero;
using detail::Packets;
using detail::waitsForItself;
using Milliseconds = std::chrono::milliseconds;

Error lost(std::string tried) {
    return {Errc::Lost, "the bus daemon is away", std::move(tried)};
}

Error badTimeout(std::string tried) {
    return {Errc::InvalidArgument, "the time-out is not above 0", std::move(tried)};
}

Error zeroByte(std::string tried) {
    return {Errc::InvalidArgument, "a zero byte in the text or subject", std::move(tried)};
}

// Why no receiver would take the message.
std::optional<Error> problemWith(std::string_view subject, const Message& message,
                                 const std::string& tried) {
    if (hasZero(subject)) return zeroByte(tried);
    if (rvmsg_Validate(message.base().data(), message.base().size()) == 0) return std::nullopt;
    return Error{Errc::InvalidArgument, "the message is broken, or nested more than 32 deep",
                 tried};
}

std::string asking(const std::string& service) {
    return "query " + service;
}

std::string requesting(std::string_view subject) {
    return "request on " + std::string(subject);
}

template <class T>
T waitFor(ClientLoop& loop, std::future<T> result) {
    loop.wait([&] { return result.wait_for(Milliseconds(0)) == std::future_status::ready; },
              [&] { result.wait(); });
    return result.get();
}

using Replied = std::function<void(Result<Message>)>;

// A function that is called, with `otherwise`, also when the loop drops what would call it.
class CalledOnce {
  public:
    CalledOnce(Replied done, Error otherwise)
        : done_(std::move(done)), otherwise_(std::move(otherwise)) {}
    ~CalledOnce() {
        if (done_) done_(tl::unexpected(std::move(otherwise_)));
    }
    CalledOnce(const CalledOnce&) = delete;
    CalledOnce& operator=(const CalledOnce&) = delete;

    Replied take() { return std::exchange(done_, {}); }

  private:
    Replied done_;
    Error otherwise_;
};

// Collects the rows for the promise of them.
class Collected final : public AnswerSink {
  public:
    explicit Collected(std::string tried) : tried_(std::move(tried)) {}
    ~Collected() override {
        if (!isEnded_) end(ended(tried_));
    }

    std::future<QueryResult> future() { return promise_.get_future(); }

    std::size_t take(Packets packets, const AnswerTotals&) override {
        if (rows_.empty()) {
            rows_ = std::move(packets.rows);
        } else {
            std::ranges::move(packets.rows, std::back_inserter(rows_));
        }
        return packets.count;
    }

    void end(std::optional<QueryError> error) override {
        isEnded_ = true;
        if (!error) return promise_.set_value(std::move(rows_));
        std::ranges::move(error->rows, std::back_inserter(rows_));
        error->rows = std::move(rows_);
        promise_.set_value(tl::unexpected(std::move(*error)));
    }

  private:
    const std::string tried_;
    std::promise<QueryResult> promise_;
    Rows rows_;
    bool isEnded_ = false;
};

class RequestExchange : public Exchange {
  public:
    RequestExchange(ClientLoop& loop, std::string tried, Milliseconds timeout, Replied done)
        : Exchange(loop, std::move(tried), timeout), done_(std::move(done)) {}

    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        if (data.type() == RVMSG_MSG) finish(Message(static_cast<const RvMsg&>(data)));
    }

    void fail(Errc code) override { finish(tl::unexpected(Error{code, textOf(code), tried_})); }

  private:
    void finish(Result<Message> result) {
        const Replied done = std::move(done_);
        delete this;
        done(std::move(result));
    }

    Replied done_;
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

Result<Client> Client::start(Options options, const std::function<Result<>(ClientLoop&)>& connect) {
    if (options.timeout <= Milliseconds(0)) return tl::unexpected(badTimeout("open"));
    if (auto named = detail::checkDomain(options.domain); !named) {
        return tl::unexpected(std::move(named.error()));
    }
    auto loop = std::make_shared<ClientLoop>(std::move(options));
    Client client(loop);
    if (auto started = connect(*loop); !started) return tl::unexpected(std::move(started.error()));
    return client;
}

Result<Client> Client::open(Options options) {
    return start(std::move(options), [](ClientLoop& loop) { return loop.start(); });
}

Result<Client> Client::open() {
    return open(Options());
}

Result<Client> Client::onThisThread(Options options) {
    return start(std::move(options), [](ClientLoop& loop) { return loop.startHere(nullptr); });
}

Result<Client> Client::onThisThread(CVekRvNet& net, Options options) {
    options.domain = net.m_domain ? net.m_domain.get() : "";
    return start(std::move(options), [&](ClientLoop& loop) { return loop.startHere(&net); });
}

Result<> Client::run() {
    if (loop_->run()) return {};
    return tl::unexpected(
        Error{Errc::InvalidArgument, "not the thread that runs this client's loop", "run"});
}

bool Client::isConnected() const {
    return loop_->isConnected();
}

Connection Client::connection() const {
    return loop_->connection();
}

std::string Client::inDomain(std::string_view subject) const {
    return loop_->inDomain(subject);
}

void Client::ask(const ServiceName& service, std::string_view text,
                 std::optional<Milliseconds> timeout, std::shared_ptr<AnswerSink> sink) {
    const std::string tried = asking(service.text());
    const Milliseconds wait = timeout.value_or(loop_->options.timeout);
    if (hasZero(text)) return sink->end(QueryError{zeroByte(tried), {}});
    if (wait <= Milliseconds(0)) return sink->end(QueryError{badTimeout(tried), {}});
    if (loop_->isLost()) return sink->end(QueryError{lost(tried), {}});
    loop_->post([loop = loop_.get(), tried, subject = inDomain(service.querySubject()),
                 question = CVekQryInfo::RQIMessage(std::string(text).c_str()), wait,
                 sink = std::move(sink)]() mutable {
        (new AnswerExchange(*loop, tried, wait, std::move(sink)))->ask(subject, question);
    });
}

std::future<QueryResult> Client::queryAsync(const ServiceName& service, std::string_view text,
                                            std::optional<Milliseconds> timeout) {
    auto rows = std::make_shared<Collected>(asking(service.text()));
    std::future<QueryResult> result = rows->future();
    ask(service, text, timeout, std::move(rows));
    return result;
}

QueryResult Client::query(const ServiceName& service, std::string_view text,
                          std::optional<Milliseconds> timeout) {
    if (!loop_->mayWait()) {
        return tl::unexpected(QueryError{waitsForItself(asking(service.text())), {}});
    }
    return waitFor(*loop_, queryAsync(service, text, timeout));
}

QueryResult Client::query(std::string_view service, std::string_view text,
                          std::optional<Milliseconds> timeout) {
    const auto name = ServiceName::of(service);
    if (!name) return tl::unexpected(QueryError{name.error(), {}});
    return query(*name, text, timeout);
}

RowStream Client::stream(const ServiceName& service, std::string_view text,
                         std::optional<Milliseconds> timeout) {
    auto state = std::make_shared<RowStream::State>(loop_, asking(service.text()));
    ask(service, text, timeout, std::make_shared<RowStream::Sink>(state));
    return RowStream(std::move(state));
}

RowStream Client::stream(std::string_view service, std::string_view text,
                         std::optional<Milliseconds> timeout) {
    const auto name = ServiceName::of(service);
    if (name) return stream(*name, text, timeout);
    auto state = std::make_shared<RowStream::State>(loop_, name.error().tried);
    state->end(QueryError{name.error(), {}}, false);
    return RowStream(std::move(state));
}

Result<Message> Client::request(std::string_view subject, const Message& message,
                                std::optional<Milliseconds> timeout) {
    if (!loop_->mayWait()) return tl::unexpected(waitsForItself(requesting(subject)));
    auto promise = std::make_shared<std::promise<Result<Message>>>();
    std::future<Result<Message>> result = promise->get_future();
    requestAsync(
        subject, message,
        [promise](Result<Message> reply) { promise->set_value(std::move(reply)); }, timeout);
    return waitFor(*loop_, std::move(result));
}

void Client::requestAsync(std::string_view subject, const Message& message, Replied done,
                          std::optional<Milliseconds> timeout) {
    const std::string to(subject);
    const std::string tried = requesting(subject);
    const Milliseconds wait = timeout.value_or(loop_->options.timeout);
    if (auto problem = problemWith(subject, message, tried)) {
        return done(tl::unexpected(std::move(*problem)));
    }
    if (wait <= Milliseconds(0)) return done(tl::unexpected(badTimeout(tried)));
    if (loop_->isLost()) return done(tl::unexpected(lost(tried)));
    auto guarded = std::make_shared<CalledOnce>(std::move(done), ended(tried));
    loop_->post(
        [loop = loop_.get(), guarded = std::move(guarded), tried, to, sent = message.base(), wait] {
            (new RequestExchange(*loop, tried, wait, guarded->take()))->send(to, sent);
        });
}

Result<> Client::post(std::function<void()> work) {
    if (loop_->post(std::move(work))) return {};
    return tl::unexpected(ended("post"));
}

Result<> Client::publish(std::string_view subject, const Message& message) {
    const std::string to(subject);
    const std::string tried = "publish on " + to;
    if (auto problem = problemWith(subject, message, tried)) {
        return tl::unexpected(std::move(*problem));
    }
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

Result<Following> Client::follow(const ServiceName& service, std::string_view text,
                                 Follower follower, std::optional<Milliseconds> timeout) {
    const std::string tried = "follow " + service.text();
    const Milliseconds wait = timeout.value_or(loop_->options.timeout);
    if (hasZero(text)) return tl::unexpected(zeroByte(tried));
    if (wait <= Milliseconds(0)) return tl::unexpected(badTimeout(tried));
    if (service.notifySubject().empty()) {
        return tl::unexpected(Error{Errc::InvalidArgument, "the service tells no changes", tried});
    }
    detail::Followed::What what{tried, inDomain(service.querySubject()),
                                inDomain(service.notifySubject()), std::string(text), wait};
    auto followed = std::make_shared<detail::Followed>(loop_, std::move(what), std::move(follower));
    std::optional<Errc> failure;
    if (!loop_->perform([&] { failure = followed->start(); })) return tl::unexpected(ended(tried));
    if (!failure) return Following(std::move(followed));
    return tl::unexpected(Error{*failure, "its subjects cannot be listened on", tried});
}

Result<Following> Client::follow(std::string_view service, std::string_view text, Follower follower,
                                 std::optional<Milliseconds> timeout) {
    const auto name = ServiceName::of(service);
    if (!name) return tl::unexpected(name.error());
    return follow(*name, text, std::move(follower), timeout);
}

}  // namespace kvx
