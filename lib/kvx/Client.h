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
#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/ServiceName.h"
#include "mom/config/DaemonAddress.h"
#include "platform/Export.h"

namespace kvx {

namespace detail {
class ClientLoop;
}  // namespace detail

/// The rows of an answer, whole and in the order in which the service sent them.
using Rows = std::vector<Record>;

/// Why a question has no whole answer, with what came of it: `Partial` and `MixedAnswers` may have
/// rows, `Refused` may have records that say more.
struct QueryError : Error {
    Rows rows;
};

using QueryResult = tl::expected<Rows, QueryError>;

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

/// A program's access to the bus: questions to services, messages, listening. One at a time in a
/// process, and none beside a `Service` or a network object of `mom`.
///
/// The client's own thread runs the loop. Every call may be made from any thread; those that wait
/// give `InvalidArgument` inside a function that the client calls, which runs on that thread and
/// must not block it for long. While the daemon is away, questions, requests and messages are
/// `Lost` at once; to listen, and to end a subscription, waits for an attempt to reach it (8 s, or
/// 28 s for a host that does not answer at all).
class KVX_API Client {
  public:
    struct Options {
        std::string domain = "DEFAULT";
        /// What is left empty comes from the daemon configuration file.
        DaemonAddress daemon{};
        /// How long to wait for an answer, and for its next packet. Above 0, as every time-out.
        std::chrono::milliseconds timeout{8000};
        /// Called with true and false, on the client's thread, when the connection comes and goes.
        std::function<void(bool)> onConnection{};
    };

    /// Connects. `NoDaemon`, with the address, when nobody is there; a local daemon is started.
    /// `Busy` while another client or service of this process lives.
    static Result<Client> open(Options options);
    static Result<Client> open();

    Client(Client&&) noexcept = default;
    Client& operator=(Client&&) noexcept;
    /// `end`. No other thread may be calling.
    ~Client();

    /// What waits gets `Ended`, and so does every later call. Returns when no function given to it
    /// is running, unless called by one. Any thread.
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

    /// Sends `message` on exactly `subject` and waits for the first reply.
    [[nodiscard]] Result<Message> request(std::string_view subject, const Message& message,
                                          std::optional<std::chrono::milliseconds> timeout = {});

    /// Sends `message` on exactly `subject`. Returns when it has been handed to the connection.
    Result<> publish(std::string_view subject, const Message& message);

    /// Calls `received` on the client's thread for every message on exactly `subject`, which may
    /// have wildcards.
    [[nodiscard]] Result<Subscription> listen(std::string_view subject,
                                              std::function<void(const Delivery&)> received);

    /// Calls `changed` on the client's thread for every record that the service notifies.
    [[nodiscard]] Result<Subscription> snoop(const ServiceName& service,
                                             std::function<void(const Record&)> changed);

    /// `subject` in the client's domain: "NEWS" is "NEWS.DEFAULT".
    [[nodiscard]] std::string inDomain(std::string_view subject) const;

    [[nodiscard]] bool isConnected() const;

  private:
    explicit Client(std::shared_ptr<detail::ClientLoop> loop);
    Result<Subscription> subscribe(
        std::string_view subject,
        std::function<void(const char*, RvSender*, const RvDatum&)> received);

    std::shared_ptr<detail::ClientLoop> loop_;
};

}  // namespace kvx
