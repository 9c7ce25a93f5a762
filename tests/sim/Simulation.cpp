// A run: the daemon and the clients start, the schedule happens, the network heals, every client
// marks every subject, all end, and nothing is left.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <sstream>

#include "rvd/Log.h"
#include "rvd/Server.h"
#include "tests/sim/Client.h"
#include "tests/sim/Uv.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace kvx::rvd {

// The daemon's log lines go to the simulation.
void Log::write(LogLevel level, std::string_view text) const {
    if (!enabled(level)) return;
    const sim::Harness harness;
    sim::world->note(std::string(text));
    if (text.starts_with("counted:")) sim::world->counted = text;
}

}  // namespace kvx::rvd

namespace kvx::sim {

namespace {

constexpr unsigned kRunSeconds = 60;      // of real time
constexpr Milliseconds kHealMs = 45'000;  // until every client is connected again
constexpr Milliseconds kEndMs = 30'000;
constexpr Milliseconds kRestartMs = 1'500;   // of the daemon
constexpr std::int64_t kOwnBytes = 1 << 20;  // of the daemon, without clients

struct Plan {
    unsigned clients;
    std::size_t capacity;
    std::uint64_t queueLimit;
    std::uint64_t memory;
    std::size_t stepsAtOnce;
    std::uint64_t slowness;
    std::size_t mostListens;  // of a client, for which the memory of all suffices
};

Plan planOf(std::uint64_t seed) {
    constexpr std::array<std::size_t, 4> kCapacities = {200, 2'000, 16'000, 65'536};
    constexpr std::array<std::uint64_t, 4> kLimits = {2'000, 8'000, 50'000, 1'000'000};
    constexpr std::array<std::uint64_t, 3> kMemories = {100'000, 1'000'000, 100'000'000};
    constexpr std::array<std::size_t, 4> kSteps = {1, 2, 10, 256};
    constexpr std::array<std::uint64_t, 3> kSlowness = {2, 8, 50};
    Random random(seed ^ 0xB1A4ULL);
    Plan plan{};
    plan.clients = 2 + static_cast<unsigned>(random(4));
    plan.capacity = random.among(kCapacities);
    plan.queueLimit = random.among(kLimits);
    plan.memory = random.among(kMemories);
    plan.mostListens = plan.memory == kMemories[0] ? 10 : 100;
    plan.stepsAtOnce = random.among(kSteps);
    plan.slowness = random.among(kSlowness);
    return plan;
}

class Simulation {
  public:
    Simulation(std::uint64_t seed, const Plan& plan);
    void play(const Schedule& schedule);
    void calmDown();
    void checkMarks();
    void end();

  private:
    void serve();
    void apply(const Action& action);
    void runFor(Milliseconds duration);
    void runUntilQuiet();
    void checkBounds() const;

    const Plan plan_;
    Program* daemon_ = nullptr;
    bool daemonEnds_ = false;
    bool serves_ = false;
    bool killed_ = false;
    bool gracefully_ = false;
    std::vector<std::unique_ptr<Client>> clients_;
};

Simulation::Simulation(std::uint64_t seed, const Plan& plan) : plan_(plan) {
    world->network.capacity = plan.capacity;
    world->ledger.queueLimit = plan.queueLimit;
    world->slowness = plan.slowness;
    daemon_ = &world->start("daemon", [this] { serve(); });
    Random random(seed ^ 0xC11E47ULL);
    for (unsigned i = 0; i < plan.clients; ++i)
        clients_.push_back(std::make_unique<Client>(
            i, Client::Traits{random.oneIn(4), random.oneIn(6) ? "other" : "7500", random.oneIn(4),
                              random.oneIn(8), random.oneIn(3) ? 100 : 4096}));
}

void checkCounted() {
    std::istringstream in(world->counted);
    std::uint64_t matched = 0;
    std::uint64_t paid = 0;
    for (std::string word; in >> word;) {
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos) continue;
        const std::uint64_t value = std::stoull(word.substr(equals + 1));
        const std::string name = word.substr(0, equals);
        if (name.ends_with(".open")) world->fail("left at the daemon's end: " + word);
        if (name == "messages.matched") matched = value;
        if (name == "messages.delivered" || name.starts_with("dropped.")) paid += value;
    }
    if (matched != paid) world->fail("the ledger does not balance: " + world->counted);
}

// The daemon, and what starts it again.
void Simulation::serve() {
    while (!daemonEnds_) {
        {
            rvd::Options options;
            options.queueLimit = plan_.queueLimit;
            options.memoryLimit = plan_.memory;
            options.stepsAtOnce = plan_.stepsAtOnce;
            const rvd::Log log(rvd::LogLevel::Info);
            rvd::Server server(options, log);
            gracefully_ = killed_ = false;
            if (!server.start()) world->fail("the daemon does not start");
            serves_ = true;
            server.run();
            serves_ = false;
        }
        const Harness harness;
        if (gracefully_) checkCounted();
        if (daemon_->account.bytes != 0)
            world->fail("left by the daemon: " + std::to_string(daemon_->account.bytes) + " bytes");
        if (!daemonEnds_) platform::sleepMs(kRestartMs);
    }
}

void Simulation::apply(const Action& action) {
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
            return raiseInDaemon(SIGTERM);
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

void Simulation::checkBounds() const {
    const std::int64_t bound = kOwnBytes + static_cast<std::int64_t>(plan_.memory * 13 / 10) +
                               static_cast<std::int64_t>(clients_.size() * 2 * 65'536);
    if (daemon_->account.bytes > bound)
        world->fail("the daemon holds " + std::to_string(daemon_->account.bytes) + " bytes");
}

void Simulation::runFor(Milliseconds duration) {
    world->runUntil(world->now + duration);
    checkBounds();
}

void Simulation::play(const Schedule& schedule) {
    runFor(100);
    const Milliseconds begin = world->now;
    for (const Action& action : schedule) {
        if (begin + action.at > world->now) runFor(begin + action.at - world->now);
        apply(action);
    }
    runFor(1'000);
}

// Half a second in which no byte moves, and nobody has anything left to do.
void Simulation::runUntilQuiet() {
    for (int i = 0; i < 1'000; ++i) {
        const std::uint64_t moved = world->network.moved();
        runFor(500);
        bool idle = moved == world->network.moved();
        for (const auto& client : clients_) idle = idle && client->isIdle();
        if (idle) return;
    }
    world->fail("the world does not come to rest");
}

// First what was scheduled comes to its end, then nothing disturbs any more.
void Simulation::calmDown() {
    for (int round = 0; round < 2; ++round) {
        world->network.heal();
        failDaemonRead(-1);
        for (const auto& program : world->programs) program->frozenUntil = 0;
        runFor(kHealMs);
        runUntilQuiet();
        for (const auto& client : clients_) client->beginCalm(plan_.mostListens);
    }
    world->ledger.checkCalm();
}

// No living listener is deaf.
void Simulation::checkMarks() {
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
                for (const auto& ear : to->ears())
                    if (ear->listener != nullptr && hears(ear->subject, mark.subject) &&
                        !ear->heard.contains(mark.id))
                        world->fail("deaf: " + to->program().name + " '" + ear->subject + "' to " +
                                    mark.id.text() + " on '" + mark.subject + "'");
            }
    world->ledger.checkCalm();
}

void Simulation::end() {
    for (const auto& client : clients_) client->end();
    runFor(kEndMs);
    daemonEnds_ = gracefully_ = true;
    raiseInDaemon(SIGTERM);
    runFor(kEndMs);
    if (!world->whoIsLeft().empty()) world->fail("does not end: " + world->whoIsLeft());
    if (world->network.openSockets() != 0) world->fail("sockets are left open");
    clients_.clear();
    world->programs.clear();
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) world->fail("memory leaks");
#endif
}

[[noreturn]] void runInChild(std::uint64_t seed, const Schedule& schedule, bool verbose, int out) {
    if (!verbose && std::freopen("/dev/null", "w", stderr) == nullptr) _exit(2);
    alarm(kRunSeconds);
    static World theWorld(seed);
    world = &theWorld;
    world->verbose = verbose;
    world->report = [out](const std::string& text) {
        [[maybe_unused]] const ssize_t written = write(out, text.data(), text.size());
    };
    Simulation simulation(seed, planOf(seed));
    simulation.play(schedule);
    simulation.calmDown();
    simulation.checkMarks();
    simulation.end();
    world->report("ok " + std::to_string(world->trace));
    _exit(0);
}

}  // namespace

Schedule scheduleOf(std::uint64_t seed) {
    return scheduleOf(seed, planOf(seed).clients);
}

Outcome run(std::uint64_t seed, const Schedule& schedule, bool verbose) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) return {"no pipe", ""};
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        runInChild(seed, schedule, verbose, ends[1]);
    }
    close(ends[1]);
    std::string text;
    std::array<char, 1024> piece{};
    for (ssize_t got = 0; (got = read(ends[0], piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (text.starts_with("ok ")) return {"", text.substr(3)};
    if (text.empty())
        text = WIFSIGNALED(status) ? "ended by signal " + std::to_string(WTERMSIG(status))
                                   : "ended with status " + std::to_string(WEXITSTATUS(status));
    return {text, ""};
}

}  // namespace kvx::sim
