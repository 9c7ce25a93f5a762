#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "kvx/Changes.h"
#include "kvx/Error.h"
#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/Reply.h"
#include "kvx/ServiceName.h"
#include "mom/config/DaemonAddress.h"
#include "platform/Export.h"

class CVekEngine;

namespace kvx {

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
        /// That work on answers at once; up to 192 answers are open. Short ones pass the long ones,
        /// of which the oldest 16 share. 0: the main thread answers, for functions that return at
        /// once; it saves two changes of thread a question.
        int threads = 2;
        /// A question that is older when its turn comes is dropped, and counted.
        std::chrono::milliseconds oldestQuestion{8000};
        /// An answer of which the querier takes nothing for so long is ended; sooner, after half a
        /// second, when questions wait for its place.
        std::chrono::milliseconds patience{8000};
        /// Messages a second at most.
        unsigned long sendRate = 100'000;
        /// Whether SIGINT and SIGTERM end `run`; else their handlers stay as they are.
        bool endsBySignals = true;
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
    /// active and its own beats are fresh. Questions that come while no member is are held for six
    /// seconds; those longer than 1 MiB, or when 1,000 wait, are refused. What `answer` throws
    /// refuses the question with its text; no other function may throw. Before `run`.
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

    /// The numbered changes of this service, for queriers that follow it. Its data change inside
    /// `Changes::commit`, and its answers say by `Reply::asOf` which changes they have. `commit`
    /// gives `QueueFull` when too much waits, `Ended` once `run` is ending. The first call makes it
    /// a service that numbers; before `run`. Any thread.
    [[nodiscard]] Changes& changes();

    /// Has `work` called on the main thread at the loop's next turn; what waits when the loop ends
    /// is called before `run` returns. `Ended` after that. Any thread.
    Result<> post(std::function<void()> work);

    [[nodiscard]] bool isActive() const;

    /// Where its questions come, domain included.
    [[nodiscard]] std::string querySubject() const;

    /// Works until SIGINT, SIGTERM or `stop`; then gives the answers that have begun to leave and
    /// sends what is queued, for five seconds at most (a second signal cuts that short), leaves the
    /// group, waits for the functions that are answering (their answers are dropped: the next
    /// member gives them) and returns 0, or 1 when something could not be sent. Once: a second call
    /// returns 1.
    int run();

    /// What has become of the questions since the start.
    struct Statistics {
        std::uint64_t answered = 0;   ///< given to the function of `onQuery`
        std::uint64_t held = 0;       ///< of them, heard before this member was active
        std::uint64_t refused = 0;    ///< too long, or too many were waiting
        std::uint64_t dropped = 0;    ///< too old when their turn came
        std::uint64_t abandoned = 0;  ///< answers ended because nobody took them
        std::size_t waiting = 0;      ///< now, for a thread
    };
    /// Any thread.
    [[nodiscard]] Statistics statistics() const;

    /// The engine that it stands on, for what this class does not cover. It must not be ended.
    [[nodiscard]] CVekEngine& engine();

    /// Ends `run`, also one that has not begun. Any thread.
    void stop();

  private:
    class Impl;
    class Answering;
    explicit Service(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> impl_;
};

}  // namespace kvx
