#pragma once

#include <uv.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"
#include "platform/SignalDescriptor.h"
#include "platform/Supervisor.h"
#include "rvd/Batch.h"
#include "rvd/BusySubjects.h"
#include "rvd/Connection.h"
#include "rvd/Counters.h"
#include "rvd/Delays.h"
#include "rvd/Line.h"
#include "rvd/Listener.h"
#include "rvd/MemoryAccount.h"
#include "rvd/Options.h"
#include "rvd/Payload.h"
#include "rvd/RareWarning.h"
#include "rvd/Recorder.h"
#include "rvd/Reports.h"
#include "rvd/Router.h"
#include "rvd/Successor.h"

namespace kvx::rvd {

/// The daemon: accepts, reads, routes and writes on one thread and one libuv loop. Only this class,
/// `Listener` and `Connection` do I/O.
class Server : private Observed {
  public:
    Server(const Options& options, platform::Log log);
    ~Server() override;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Listens, at the sockets that the supervisor has passed and at those that it binds itself.
    /// False, with a line in the log, when that fails for any address.
    [[nodiscard]] bool start(std::vector<platform::PassedSocket> passed = {});
    /// The same in the place of another daemon, to which `descriptor` leads.
    [[nodiscard]] bool takeOver(int descriptor);
    /// The listening addresses, such as "tcp:127.0.0.1:41233 unix:/path", once started.
    [[nodiscard]] const std::string& address() const { return address_; }
    /// Serves until SIGTERM or SIGINT. Returns the exit status. SIGUSR1 logs the counters, SIGUSR2
    /// lets the program that is installed now take this one's place.
    int run();

  private:
    // Frees what connections leave behind.
    struct Cleaner : Worker {
        explicit Cleaner(Server& owner) : server(owner) {}
        void work() override { server.clearUp(); }
        Server& server;
    };

    // Observed
    [[nodiscard]] StatusFacts status() const override;
    [[nodiscard]] std::optional<SessionFacts> sessionAfter(std::uint64_t number) const override;

    [[nodiscard]] static std::array<int, 4> handledSignals();
    [[nodiscard]] bool listen(std::vector<platform::PassedSocket> passed);
    Listener& addListener(const ListenAddress& address);
    Connection& addConnection(std::uint64_t number);
    void begin();
    void onSignals();
    // Being replaced, and taking over: see Handover.cpp.
    void replace();
    void onHello();
    void hearNoMore();
    void keepOn(std::string_view reason) noexcept;
    void tryTo(void (Server::*step)()) noexcept;
    [[nodiscard]] bool isQuiet() const;
    void handOver();
    void save(StateWriter& state, std::vector<int>& descriptors);
    void restore(StateReader& state, Predecessor& predecessor);
    [[nodiscard]] bool startRecording(std::optional<Recorder::Place> place);
    void onConnection(Listener& listener, int status);
    void goOnAccepting(Listener::Wait since);
    [[nodiscard]] bool isNextWaiting() const;
    void onTurn();
    void reserveWatchers(std::size_t descriptor);
    bool makeRoom() noexcept;
    void onClosed(const Connection& connection);
    void acceptNext(Listener& listener);
    void startTick(std::uint64_t firstMs);
    void returnMemory();
    void onTick();
    void measure(platform::Milliseconds elapsed);
    void stop();
    [[nodiscard]] bool hasToClearUp() const { return !gone_.empty() || router_.hasLeft(); }
    void clearUp();
    void forget(Connection& connection);
    void erase(Connection& connection);
    void closeListeners();
    void closeHandles();
    [[nodiscard]] platform::Milliseconds now() const override {
        return static_cast<platform::Milliseconds>(uv_now(&loop_));
    }
    void logStop() noexcept;
    [[nodiscard]] Counters counted() const;  // with what waits now
    void logCounters() noexcept;

    const SparePayloads spares_;  // ends last
    const Options options_;
    platform::Log log_;
    const std::optional<platform::Milliseconds> aliveEvery_ = platform::aliveInterval();

    uv_loop_t loop_{};
    uv_timer_t tick_{};
    uv_prepare_t turn_{};  // before the loop waits
    uv_idle_t goOn_{};     // it does not wait: somebody is in the line
    uv_timer_t alive_{};
    const platform::SignalDescriptor signals_{handledSignals()};
    uv_poll_t signalled_{};
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::string address_;
    Counters counters_;
    MemoryAccount account_;
    Router router_;
    Batch batch_{account_};
    Line line_;
    Cleaner cleaner_{*this};
    BusySubjects busy_;
    Delays delays_;
    std::unique_ptr<Recorder> recorder_;  // null: nothing is recorded
    Recorder::Place recorderBefore_;      // of the daemon that this one replaces
    const Reports reports_{*this, busy_, delays_};
    const ConnectionContext context_;
    std::map<std::uint64_t, std::unique_ptr<Connection>> connections_;  // by number
    std::vector<Connection*> gone_;  // that are heavy; has room for all
    std::uint64_t accepted_ = 0;
    std::size_t watchers_ = 0;                          // for which libuv has memory
    std::size_t open_ = 0;                              // of the connections
    std::map<std::uint64_t, Connection*> unannounced_;  // by number, so the oldest is the first
    std::size_t mostOpen_ = 0;                          // for which there are descriptors
    RareWarning crowded_{log_};
    RareWarning notAllowed_{log_};
    unsigned acceptedNow_ = 0;               // connections, in the present turn
    platform::Milliseconds returnedAt_ = 0;  // when freed memory was returned to the system
    std::int64_t startedAt_ = platform::wallMilliseconds();
    platform::Milliseconds bornAt_ = 0;
    platform::Milliseconds tickedAt_ = 0;
    Counters before_;             // at the last tick
    Counters rates_;              // what they grew by in the second before that
    uv_poll_t* hello_ = nullptr;  // watches for what the successor says first
    std::optional<Successor> successor_;
    platform::Milliseconds replaceBy_ = 0;
    bool isPaused_ = false;
    std::uint64_t replacements_ = 0;  // since the first daemon of this line has started
    std::uint64_t replaceFailures_ = 0;
    std::string replaceError_;  // why it was not replaced, the last time
    bool stopping_ = false;
    platform::Milliseconds stopBy_ = 0;
};

}  // namespace kvx::rvd
