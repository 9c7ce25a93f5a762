#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "kvx/Error.h"
#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/ServiceName.h"
#include "mom/config/DaemonAddress.h"
#include "platform/Export.h"

namespace kvx {

/// A question as a service hears it.
struct Question {
    std::string text;          ///< the query
    std::string replySubject;  ///< the inbox of the querier
};

/// The answer to one question, which goes out when the function returns that was given it. One
/// thread at a time.
class KVX_API Reply {
  public:
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    /// Adds a row. Encoded at once: at most a hundred rows wait uncompressed.
    void row(const Record& record);
    /// Makes it a refusal, which says why; rows so far are dropped. `position`, when above 0, is
    /// the place in the query's text, from 1.
    void refuse(std::string_view why, int position = 0);

  private:
    friend class Service;
    class State;
    explicit Reply(State& state) : state_(state) {}

    State& state_;
};

/// A service of the bus: it answers questions, tells of changes, and is one of several members of
/// which one is active. One at a time in a process, and none beside a `Client`.
///
/// The thread that makes it is its main thread, which calls `run` and destroys it; the functions
/// given to it are called there, but for questions, which a pool answers.
class KVX_API Service {
  public:
    struct Options {
        std::string domain = "DEFAULT";
        /// What is left empty comes from the daemon configuration file.
        DaemonAddress daemon{};
        /// Members of one group, domain and tier stand by for one another; empty: no group, always
        /// active.
        std::string group{};
        int tier = 1;
        /// Announced every 10 s, for `kvx services`.
        bool beats = true;
        /// That answer questions. 0: the main thread does, for functions that return at once; it
        /// saves two changes of thread a question.
        int threads = 2;
        /// Messages a second at most.
        unsigned long sendRate = 100'000;
        /// Messages that may wait to be sent; above it `notify` refuses and questions wait.
        int mostWaiting = 20'000;
    };

    /// Connects. `NoDaemon`, with the address, when nobody is there; a local daemon is started.
    /// `Busy` while another client or service of this process lives.
    static Result<Service> open(const ServiceName& name, Options options);
    /// The same by any name; `InvalidArgument` when it is none.
    static Result<Service> open(std::string_view name, Options options);

    Service(Service&&) noexcept;
    Service& operator=(Service&&) noexcept;
    /// Main thread. Waits for the functions that answer questions.
    ~Service();

    /// Has every question answered by `answer`, on a thread of the pool, while this member is
    /// active. Questions that come while no member is are held for six seconds; those longer than
    /// 1 MiB, or when 1,000 wait, are refused. What `answer` throws refuses the question with its
    /// text; no other function may throw. Before `run`.
    void onQuery(std::function<void(const Question&, Reply&)> answer);

    /// Has `changed` called at the start of `run` and whenever this member has become active (true)
    /// or standby. Before `run`.
    void onRole(std::function<void(bool active)> changed);

    /// Has `received` called for every message on `subject` in the service's domain. Before `run`.
    Result<> onMessage(std::string_view subject, std::function<void(const Message&)> received);

    /// Has `work` called on a thread of its own pool every `interval`, rounded up to 100 ms, while
    /// `run` runs; never while it is still running. Works of one interval are spread over it.
    /// `InvalidArgument` for an interval below 1 ms or above 24 h and for a name that is empty or
    /// taken. Before `run`.
    Result<> every(std::chrono::milliseconds interval, std::string_view name,
                   std::function<void()> work);

    /// Tells of changed records on the service's notify subject. `QueueFull` when too much waits,
    /// `Ended` once `run` is ending. Any thread.
    Result<> notify(std::span<const Record> records);
    Result<> notify(const Record& record) { return notify(std::span(&record, 1)); }

    /// Has `work` called on the main thread at the loop's next turn; what waits when the loop ends
    /// is called before `run` returns. `Ended` after that. Any thread.
    Result<> post(std::function<void()> work);

    [[nodiscard]] bool isActive() const;

    /// Works until SIGINT, SIGTERM or `stop`; then sends what is queued, for five seconds at most,
    /// leaves the group, waits for the functions that are answering (their answers are dropped: the
    /// next member gives them) and returns 0, or 1 when something could not be sent. Once: a second
    /// call returns 1.
    int run();

    /// Ends `run`, also one that has not begun. Any thread.
    void stop();

  private:
    class Impl;
    explicit Service(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> impl_;
};

}  // namespace kvx
