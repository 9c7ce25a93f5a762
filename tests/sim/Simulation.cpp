// A run: the daemon and the clients start, the schedule happens, the network heals, every client
// marks every subject, all end, and nothing is left.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>

#include "platform/Log.h"
#include "rvd/Server.h"
#include "tests/sim/Client.h"
#include "tests/support/Ledger.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace kvx::platform {

// The daemon's log lines go to the simulation.
void Log::write(LogLevel level, std::string_view text) {
    if (!enabled(level)) return;
    const sim::Harness harness;
    sim::world->note(std::string(text));
    const std::size_t closed = text.find(" is closed: ");
    if (closed != std::string_view::npos) {
        const std::size_t port = text.rfind(':', closed) + 1;
        sim::world->ledger.ignored(
            sim::Network::linkAt(std::stoul(std::string(text.substr(port)))));
    }
    if (!text.starts_with("counted:")) return;
    sim::world->counted = text;
    const std::string broken = test::brokenLaw(sim::world->counted);
    if (!broken.empty()) sim::world->fail(broken);
}

}  // namespace kvx::platform

namespace kvx::sim {

namespace {

constexpr unsigned kRunSeconds = 60;      // of real time
constexpr Milliseconds kHealMs = 45'000;  // until every client is connected again
constexpr Milliseconds kEndMs = 30'000;
constexpr Milliseconds kRestartMs = 1'500;   // of the daemon
constexpr std::int64_t kOwnBytes = 1 << 20;  // of the daemon, without clients
constexpr std::size_t kReport = 4096;        // bytes

struct Plan {
    explicit Plan(std::uint64_t seed) : random(seed ^ 0xB1A4ULL) {}

    Random random;
    unsigned clients = 2 + static_cast<unsigned>(random(4));
    std::size_t capacity = random.among(std::array{200, 2'000, 16'000, 65'536});
    std::uint64_t queueLimit = random.among(std::array{2'000, 8'000, 50'000, 1'000'000});
    std::uint64_t memory = random.among(std::array{100'000, 1'000'000, 100'000'000});
    std::size_t stepsAtOnce = random.among(std::array{1, 2, 10, 256});
    std::uint64_t slowness = random.among(std::array{2, 8, 50});
    /// Of a client, for which the memory of all suffices.
    std::size_t mostListens = memory == 100'000 ? 10 : 100;
};

class Simulation {
  public:
    explicit Simulation(std::uint64_t seed) : plan_(seed) {
        world->network.capacity = plan_.capacity;
        world->ledger.queueLimit = plan_.queueLimit;
        world->slowness = plan_.slowness;
        daemon_ = &world->start("daemon", [this] { serve(); });
        Random random(seed ^ 0xC11E47ULL);
        for (unsigned i = 0; i < plan_.clients; ++i)
            clients_.push_back(std::make_unique<Client>(
                i, Client::Traits{random.oneIn(4), random.oneIn(6) ? "other" : "7500",
                                  random.oneIn(4), random.oneIn(8), random.oneIn(3) ? 100 : 4096,
                                  i == 0 && Random(seed ^ 0xF0110ULL).oneIn(3)}));
    }

    void play(const Schedule& schedule) {
        runFor(100);
        const Milliseconds begin = world->now;
        for (const Action& action : schedule) {
            if (begin + action.at > world->now) runFor(begin + action.at - world->now);
            apply(action);
        }
        runFor(1'000);
    }

    // First what was scheduled comes to its end, then nothing disturbs any more.
    void calmDown() {
        for (int round = 0; round < 2; ++round) {
            world->network.heal();
            failDaemonRead(-1);
            for (const auto& program : world->programs) program->frozenUntil = 0;
            runFor(kHealMs);
            runUntilQuiet();
            for (const auto& client : clients_) client->beginCalm(plan_.mostListens);
        }
        world->ledger.checkCalm();
        world->ledger.checkInterest();
    }

    // No living listener is deaf.
    void checkMarks() {
        for (const auto& client : clients_) {
            if (!client->isJoined()) continue;
            for (unsigned subject = 0; subject < subjects().size(); ++subject) {
                client->post({0, Deed::Publish, 0, subject, 2});
                runUntilQuiet();
            }
        }
        for (const auto& from : clients_)
            for (const Client::Mark& mark : from->marks())
                for (const auto& to : clients_) {
                    if (!to->isJoined() || to->service() != from->service()) continue;
                    if (to == from && to->follows()) continue;
                    for (const auto& ear : to->ears())
                        if (ear->listener != nullptr && ear->subject != "_RVD.INTEREST" &&
                            hears(ear->subject, mark.subject) && !ear->heard.contains(mark.id))
                            world->fail("deaf: " + to->program().name + " '" + ear->subject +
                                        "' to " + mark.id.text() + " on '" + mark.subject + "'");
                }
        world->ledger.checkCalm();
    }

    void end() {
        for (const auto& client : clients_) client->end();
        runFor(kEndMs);
        daemonEnds_ = gracefully_ = true;
        world->raised = SIGTERM;
        runFor(kEndMs);
        if (!world->whoIsLeft().empty()) world->fail("does not end: " + world->whoIsLeft());
        if (world->network.openSockets() != 0) world->fail("sockets are left open");
        clients_.clear();
        world->programs.clear();
#if defined(__SANITIZE_ADDRESS__)
        if (__lsan_do_recoverable_leak_check() != 0) world->fail("memory leaks");
#endif
    }

  private:
    // The daemon, and what starts it again.
    void serve() {
        while (!daemonEnds_) {
            {
                rvd::Options options;
                options.queueLimit = plan_.queueLimit;
                options.memoryLimit = plan_.memory;
                options.stepsAtOnce = plan_.stepsAtOnce;
                const platform::Log log(platform::LogLevel::Info);
                rvd::Server server(options, log);
                gracefully_ = killed_ = false;
                if (!server.start()) world->fail("the daemon does not start");
                serves_ = true;
                server.run();
                serves_ = false;
            }
            const Harness harness;
            if (gracefully_ && world->counted.find(".open=") != std::string::npos)
                world->fail("left at the daemon's end: " + world->counted);
            if (daemon_->account.bytes != 0)
                world->fail("left by the daemon: " + std::to_string(daemon_->account.bytes) +
                            " bytes");
            if (!daemonEnds_) platform::sleepMs(kRestartMs);
        }
    }

    void apply(const Action& action) {
        world->note(action.text());
        Client& client = *clients_[action.client];
        const unsigned number = client.program().number;
        switch (action.deed) {
            case Deed::Freeze:
                client.program().frozenUntil = world->now + action.b;
                return;
            case Deed::StallUp:
            case Deed::StallDown:
                return world->network.stall(number, action.deed == Deed::StallUp, action.b);
            case Deed::Cut:
                return world->network.cut(number);
            case Deed::Refuse:
                return world->network.refuse(action.b);
            case Deed::FailDaemon:
                return failDaemonRead(action.a % 20);
            case Deed::FreezeDaemon:
                daemon_->frozenUntil = world->now + action.b;
                return;
            case Deed::StopDaemon:
                gracefully_ = !killed_;
                world->raised = SIGTERM;
                return;
            case Deed::KillDaemon:
                if (!serves_) return;
                killed_ = true;
                gracefully_ = false;
                return killDaemonLoop();
            case Deed::Rest:
                return;
            default:
                return client.post(action);
        }
    }

    void runFor(Milliseconds duration) {
        world->runUntil(world->now + duration);
        const std::uint64_t bound =
            kOwnBytes + plan_.memory * 13 / 10 + clients_.size() * 2 * 65'536;
        if (daemon_->account.bytes > static_cast<std::int64_t>(bound))
            world->fail("the daemon holds " + std::to_string(daemon_->account.bytes) + " bytes");
    }

    // Half a second in which no byte moves, and nobody has anything left to do.
    void runUntilQuiet() {
        for (int i = 0; i < 1'000; ++i) {
            const std::uint64_t moved = world->network.moved();
            runFor(500);
            bool idle = moved == world->network.moved();
            for (const auto& client : clients_) idle = idle && client->isIdle();
            if (idle) return;
        }
        world->fail("the world does not come to rest");
    }

    const Plan plan_;
    Program* daemon_ = nullptr;
    bool daemonEnds_ = false;
    bool serves_ = false;
    bool killed_ = false;
    bool gracefully_ = false;
    std::vector<std::unique_ptr<Client>> clients_;
};

[[noreturn]] void runInChild(std::uint64_t seed, const Schedule& schedule, bool verbose,
                             char* out) {
    if (!verbose && std::freopen("/dev/null", "w", stderr) == nullptr) _exit(2);
    alarm(kRunSeconds);
    static World theWorld(seed);
    world = &theWorld;
    world->verbose = verbose;
    world->report = [out](const std::string& text) { out[text.copy(out, kReport - 1)] = '\0'; };
    Simulation simulation(seed);
    simulation.play(schedule);
    simulation.calmDown();
    simulation.checkMarks();
    simulation.end();
    world->report("ok " + std::to_string(world->trace));
    _exit(0);
}

}  // namespace

Schedule scheduleOf(std::uint64_t seed) {
    return scheduleOf(seed, Plan(seed).clients);
}

Outcome run(std::uint64_t seed, const Schedule& schedule, bool verbose) {
    void* const shared =
        mmap(nullptr, kReport, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) return {"no memory", ""};
    const pid_t child = fork();
    if (child == 0) runInChild(seed, schedule, verbose, static_cast<char*>(shared));
    int status = 0;
    waitpid(child, &status, 0);
    const std::string text(static_cast<const char*>(shared));
    munmap(shared, kReport);
    if (text.starts_with("ok ")) return {"", text.substr(3)};
    return {text.empty() ? "ended with wait status " + std::to_string(status) : text, ""};
}

}  // namespace kvx::sim
