#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kvx/Error.h"
#include "kvx/Follow.h"
#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/RowStream.h"
#include "kvx/ServiceName.h"
#include "mom/config/DaemonAddress.h"
#include "platform/Export.h"

class CVekRvNet;

namespace kvx {

namespace detail {
class AnswerSink;
class ClientLoop;
}  // namespace detail

/// A message as it is delivered. Views: valid during the call.
struct Delivery {
    std::string_view subject;
    std::string_view replySubject;  ///< empty when no answer is asked for
    const Message& message;
};

/// Ends a subscription when it is destroyed: afterwards its function is neither running nor called
/// any more, unless it is destroyed by that function itself. May outlive its client.
class KVX_API Subscription {
  public:
    Subscription() = default;
    Subscription(Subscription&&) noexcept = default;
    Subscription& operator=(Subscription&&) noexcept;
    ~Subscription();

  private:
    friend class Client;
    class State;
    explicit Subscription(std::shared_ptr<State> state);

    std::shared_ptr<State> state_;
};

/// Whether a client has its daemon.
struct Connection {
    bool isThere = false;
    std::string address;  ///< of the daemon, as it was tried: "tcp:7500"
    std::string why;      ///< it is not there; empty when it is
};

/// A program's access to the bus: questions to services, messages, listening. One at a time in a
/// process, and none beside a `Service` or a network object of `mom`.
///
/// The client's own thread runs the loop, unless it is made by `onThisThread`. Every call may be
/// made from any thread; those that wait give `InvalidArgument` inside a function that the client
/// calls, which runs on the client's thread and must not block it for long. While the daemon is
/// away, questions, requests and messages are `Lost` at once; to listen, and to end a subscription,
/// waits for an attempt to reach it (8 s, or 28 s for a host that does not answer at all).
///
/// A question is answered by the member whose packet comes first. Packets of another one are
/// ignored and `Options::onWarning` says so; where members do not say who they are, such an answer
/// is `MixedAnswers`.
class KVX_API Client {
  public:
    struct Options {
        std::string domain = "DEFAULT";
        /// What is left empty comes from the daemon configuration file.
        DaemonAddress daemon{};
        /// How long to wait for an answer, and for its next packet. Above 0, as every time-out.
        std::chrono::milliseconds timeout{8000};
        /// Called on the client's thread when the connection comes and goes.
        std::function<void(const Connection&)> onConnection{};
        /// Called on the client's thread with what should be known although nothing failed, once a
        /// question: "query Links: _INBOX.x.y answered too; its packets are ignored".
        std::function<void(const std::string&)> onWarning{};
    };

    /// Connects. `NoDaemon`, with the address, when nobody is there; a local daemon is started.
    /// `Busy` while another client or service of this process lives, or a network object of another
    /// thread.
    static Result<Client> open(Options options);
    static Result<Client> open();

    /// The same without a thread: the calling one is the client's, and must destroy it. The loop
    /// runs while a call of that thread waits, and in `run`; only then are functions called,
    /// futures satisfied and other threads served, whose calls wait for it; time-outs count while
    /// it runs. A daemon closes the connection of one that does not for ten minutes. While the
    /// daemon is away, a call of that thread first tries to reach it, for the time-out of the
    /// options.
    static Result<Client> onThisThread(Options options);
    /// On the session of `net`, whose main thread this is, in place of one of its own: its address
    /// and domain count, not those of the options. `net` must outlive the client. Calls that wait
    /// stop its loop when they have what they wait for; they have no place in functions that it
    /// calls.
    static Result<Client> onThisThread(CVekRvNet& net, Options options);

    /// Runs the loop until `end`. `InvalidArgument` on another thread than that of `onThisThread`,
    /// and inside a function that the client calls.
    Result<> run();

    Client(Client&&) noexcept = default;
    Client& operator=(Client&&) noexcept;
    /// `end`. No other thread may be calling.
    ~Client();

    /// What waits gets `Ended`, and so does every later call. Returns when no function given to it
    /// is running, unless called by one, or by another thread than that of `onThisThread`, which
    /// then closes the session in the call that waits, else in the destructor. Any thread.
    void end();

    /// Puts a question to a service of the client's domain and waits for the whole answer. No rows
    /// are an answer. `TimedOut` when nobody answers, `Partial` when the answer stops, `Lost` when
    /// the connection breaks, `MixedAnswers`, `Refused`. `Partial` too for an answer of more than
    /// 1,000,000 packets or 1 GiB, and for one with packets that cannot be read.
    [[nodiscard]] QueryResult query(const ServiceName& service, std::string_view text,
                                    std::optional<std::chrono::milliseconds> timeout = {});
    /// The same by a name that need not be known.
    [[nodiscard]] QueryResult query(std::string_view service, std::string_view text,
                                    std::optional<std::chrono::milliseconds> timeout = {});

    /// The same without waiting. The future is always satisfied, also when the client ends.
    [[nodiscard]] std::future<QueryResult> queryAsync(
        const ServiceName& service, std::string_view text,
        std::optional<std::chrono::milliseconds> timeout = {});

    /// The rows as they come, for answers too large to be kept. `timeout` is for the service: the
    /// time for which no packet comes although one may. Never waits; what fails, `next` says.
    [[nodiscard]] RowStream stream(const ServiceName& service, std::string_view text,
                                   std::optional<std::chrono::milliseconds> timeout = {});
    /// The same by a name that need not be known.
    [[nodiscard]] RowStream stream(std::string_view service, std::string_view text,
                                   std::optional<std::chrono::milliseconds> timeout = {});

    /// Sends `message` on exactly `subject` and waits for the first reply.
    [[nodiscard]] Result<Message> request(std::string_view subject, const Message& message,
                                          std::optional<std::chrono::milliseconds> timeout = {});

    /// The same without waiting: `done` is called once, on the client's thread, or on this one with
    /// what fails at once.
    void requestAsync(std::string_view subject, const Message& message,
                      std::function<void(Result<Message>)> done,
                      std::optional<std::chrono::milliseconds> timeout = {});

    /// Sends `message` on exactly `subject`. Returns when it has been handed to the connection.
    /// `InvalidArgument` when messages nest more than 32 deep in it.
    Result<> publish(std::string_view subject, const Message& message);

    /// Calls `received` on the client's thread for every message on exactly `subject`, which may
    /// have wildcards.
    [[nodiscard]] Result<Subscription> listen(std::string_view subject,
                                              std::function<void(const Delivery&)> received);

    /// Calls `changed` on the client's thread for every record that the service notifies.
    [[nodiscard]] Result<Subscription> snoop(const ServiceName& service,
                                             std::function<void(const Record&)> changed);

    /// Gives the rows of the answer to `text` and from then on every change that the service
    /// commits, none missing and none twice, also over loss, a take-over, and restarts of daemon
    /// and service. For a service that numbers its changes (`Service::changes`); what goes wrong
    /// later is tried again, in the end every 30 s.
    ///
    /// Changes are those of the table that the answer names, whatever the condition in `text`: it
    /// should select all fields of all rows that matter, and the follower ignore the others. Keeps
    /// the rows. `timeout` is that of a question.
    [[nodiscard]] Result<Following> follow(const ServiceName& service, std::string_view text,
                                           Follower follower,
                                           std::optional<std::chrono::milliseconds> timeout = {});
    /// The same by a name that need not be known.
    [[nodiscard]] Result<Following> follow(std::string_view service, std::string_view text,
                                           Follower follower,
                                           std::optional<std::chrono::milliseconds> timeout = {});

    /// Has `work` called on the client's thread at the loop's next turn (at once on the thread of
    /// `onThisThread`), where calls that need the loop are made at once. Never called when the
    /// client ends before. `Ended` after that. Any thread.
    Result<> post(std::function<void()> work);

    /// `subject` in the client's domain: "NEWS" is "NEWS.DEFAULT".
    [[nodiscard]] std::string inDomain(std::string_view subject) const;

    [[nodiscard]] bool isConnected() const;
    [[nodiscard]] Connection connection() const;

  private:
    explicit Client(std::shared_ptr<detail::ClientLoop> loop);
    static Result<Client> start(Options options,
                                const std::function<Result<>(detail::ClientLoop&)>& connect);
    void ask(const ServiceName& service, std::string_view text,
             std::optional<std::chrono::milliseconds> timeout,
             std::shared_ptr<detail::AnswerSink> sink);
    Result<Subscription> subscribe(
        std::string_view subject,
        std::function<void(const char*, RvSender*, const RvDatum&)> received);

    std::shared_ptr<detail::ClientLoop> loop_;
};

}  // namespace kvx
