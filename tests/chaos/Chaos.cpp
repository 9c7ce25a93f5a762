// Waves: while all peers talk and now and then somebody asks the service, a few faults are done
// within some milliseconds, so that several are under way at a time. Then all that was done is
// healed, and in the calm each condition is waited for.
//
// A client that was cut off within its handshake tries again 15 seconds later. It does not wait for
// them here: its monotonic clock is stepped, as if the machine had slept.

#include "tests/chaos/Chaos.h"

#include <sys/resource.h>

#include "tests/support/ProcessUsage.h"
#include "tests/support/RawClient.h"
#include "tests/support/Sanitizer.h"

namespace kvx::chaos {

namespace {

using namespace std::chrono_literals;
using test::eventually;

constexpr std::size_t kQueriesAtOnce = 3;
constexpr int kMostRows = 3'000;
constexpr long long kMemory = 2LL << 20;  // of the daemon
constexpr long long kMostResident = kMemory * 13 / 10 + (32LL << 20);
constexpr std::uint64_t kNoLimit = RLIM_INFINITY;
constexpr std::size_t kStory = 20;

// The names of the columns come with the rows.
std::string answerOf(int rows) {
    std::string text = rows > 0 ? "row,padding\n" : "";
    for (int row = 0; row < rows; ++row)
        text += std::to_string(row) + ',' + std::string(50, 'x') + '\n';
    return text;
}

}  // namespace

enum class Loses : std::uint8_t { None, Door, All };  // which connections

struct Chaos::Fault {
    const char* name;
    int weight;
    Loses loses;
    std::function<void(Chaos&, int)> strike;  // a peer, or the service, as a door
};

const std::vector<Chaos::Fault>& Chaos::table() {
    using End = test::Proxy::End;
    const auto ended = [](End how) {
        return [how](Chaos& chaos, int door) { chaos.proxy_.end(door, how); };
    };
    const auto passes = [](int most, std::chrono::milliseconds pause) {
        return [most, pause](Chaos& chaos, int door) {
            const auto piece = static_cast<std::size_t>(most == 0 ? 0 : 1 + chaos.random(most));
            chaos.proxy_.limit(door, chaos.anyWay(), {piece, pause});
        };
    };
    static const std::vector<Fault> all = {
        {"stall", 16, Loses::None, passes(0, 0ms)},
        {"throttle", 10, Loses::None, passes(2'000, 1ms)},
        {"one byte at a time", 5, Loses::None, passes(1, 0ms)},
        {"odd pieces", 10, Loses::None, passes(37, 0ms)},
        {"cut", 8, Loses::Door, ended(End::Fin)},
        {"reset", 8, Loses::Door, ended(End::Reset)},
        {"half close to the daemon", 4, Loses::Door, ended(End::HalfUp)},
        {"half close to the client", 4, Loses::Door, ended(End::HalfDown)},
        {"cut in the next handshake", 3, Loses::Door,
         [](Chaos& chaos, int door) {
             chaos.proxy_.endNext(door, static_cast<std::size_t>(chaos.random(250)));
             chaos.proxy_.end(door, End::Fin);
         }},
        {"freeze", 10, Loses::None,
         [](Chaos& chaos, int door) { chaos.clients_.at(door)->kill(SIGSTOP); }},
        {"kill", 6, Loses::Door,
         [](Chaos& chaos, int door) {
             chaos.clients_.at(door)->kill(SIGKILL);
             chaos.clients_.at(door)->wait();
         }},
        {"freeze daemon", 4, Loses::None, [](Chaos& chaos, int) { chaos.daemon_.pause(); }},
        {"kill daemon", 2, Loses::All,
         [](Chaos& chaos, int) {
             chaos.daemon_.kill();
             chaos.isDaemonDead_ = true;
         }},
        {"strangers", 2, Loses::None, [](Chaos& chaos, int) { chaos.becomeStrangers(); }},
        {"no descriptors", 2, Loses::None,
         [](Chaos& chaos, int) { chaos.limitDaemon(RLIMIT_NOFILE, chaos.random(3)); }},
        {"no memory", test::kIsWatched ? 0 : 2, Loses::All,
         [](Chaos& chaos, int) { chaos.limitDaemon(RLIMIT_AS, 1 << 20); }},
        {"full disk", 3, Loses::None,
         [](Chaos& chaos, int) {
             chaos.limitDaemon(RLIMIT_FSIZE, 0);
             if (chaos.oneIn(2)) chaos.ask(true);
         }},
        {"step the wall clock", 5, Loses::None,
         [](Chaos& chaos, int) {
             chaos.board_->wallShift = chaos.random(2'000'000'000) - 1'000'000'000;
         }},
        {"step a monotonic clock", 4, Loses::None,
         [](Chaos& chaos, int door) {
             chaos.board_->peers.at(door).ahead += chaos.random(20'000);
         }},
    };
    return all;
}

Chaos::Chaos(unsigned seed)
    : random_(seed),
      board_(directory_.file("board")),
      daemon_({"-queue-limit", "100k", "-memory", std::to_string(kMemory)}, surroundings(),
              "ulimit -n 60"),
      proxy_(daemon_.port(), kDoors + 1),
      clients_(kDoors) {
    for (int door = 0; door < kDoors; ++door) start(door);
}

// A full file fails a write, instead of ending the process.
std::vector<std::string> Chaos::surroundings() const {
    ::signal(SIGXFSZ, SIG_IGN);
    const char* const asan = std::getenv("ASAN_OPTIONS");
    return {
        "LD_PRELOAD=" KVX_CHAOS_CLOCK, "KVX_CHAOS_BOARD=" + directory_.file("board"),
        std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
}

Chaos::Child Chaos::start(const std::string& program,
                          const std::vector<std::string>& arguments) const {
    return std::make_unique<test::ChildProcess>(program, arguments, surroundings());
}

void Chaos::start(int door) {
    Board::Peer& slot = board_->peers.at(door);
    ++slot.incarnation;
    slot.isConnected = slot.isCutOff = false;
    clients_.at(door) =
        start(KVX_CHAOS_CLIENT,
              {directory_.file("board"), std::to_string(proxy_.port(door)), std::to_string(door)});
}

void Chaos::ask(bool isDiskFull) {
    if (queries_.size() >= kQueriesAtOnce) return;
    const int rows = random(kMostRows);
    const std::string limits = isDiskFull ? "ulimit -f 0" : ":";
    queries_.push_back(
        {start("/bin/sh", {"-c", limits + R"( && exec "$0" "$@")", KVX_BIN_DIR "/kvx", "query",
                           "Chaos", std::to_string(rows), "--csv", "--timeout", "2", "--daemon",
                           "tcp:127.0.0.1:" + std::to_string(proxy_.port(kDoors))}),
         rows});
}

// Connections that the proxy does not know, of which some begin to speak.
void Chaos::becomeStrangers() {
    if (isDaemonDead_) return;
    for (int i = random(80); i > 0; --i) {
        strangers_.emplace_back(daemon_.port());
        if (oneIn(2)) strangers_.back().greet(wire::kProtocolV4, 0, 1);
        if (oneIn(4)) strangers_.back().send(test::dataMessage("CHAOS.NOBODY", "x"));
    }
}

// Of descriptors and memory: so much more than it has now.
void Chaos::limitDaemon(int resource, std::uint64_t most) const {
    if (isDaemonDead_) return;
    rlimit limit{};
    const auto kind = static_cast<__rlimit_resource>(resource);
    if (::prlimit(daemon_.pid(), kind, nullptr, &limit) != 0) return;
    if (resource == RLIMIT_NOFILE && most != kNoLimit) most += test::openDescriptors(daemon_.pid());
    if (resource == RLIMIT_AS && most != kNoLimit) {
        std::uint64_t pages = 0;
        std::ifstream("/proc/" + std::to_string(daemon_.pid()) + "/statm") >> pages;
        most += pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    }
    limit.rlim_cur = std::min<rlim_t>(most, limit.rlim_max);
    static_cast<void>(::prlimit(daemon_.pid(), kind, &limit, nullptr));
}

std::string Chaos::wave(int most) {
    int total = 0;
    for (const Fault& fault : table()) total += fault.weight;
    board_->calm = 0;
    if (oneIn(2)) ask(false);
    for (int left = std::min(most, 1 + random(10)); left > 0; --left) {
        int at = random(total);
        const Fault* fault = table().data();
        for (; at >= fault->weight; ++fault) at -= fault->weight;
        const int door = random(kDoors);
        story_.push_back(std::to_string(++faults_) + ": " + fault->name + ", door " +
                         std::to_string(door));
        if (story_.size() > kStory) story_.pop_front();
        fault->strike(*this, door);
        for (int i = 0; i < kDoors; ++i)
            if (fault->loses == Loses::All || (fault->loses == Loses::Door && i == door))
                mayHaveLost_.at(i) = true;
        if (oneIn(2)) board_->peers.at(random(kPeers)).flood = random(300);
        platform::sleepMs(random(15));
    }
    platform::sleepMs(random(100));
    heal();
    return calm();
}

void Chaos::heal() {
    strangers_.clear();
    if (isDaemonDead_) {
        daemon_.restart();
        isDaemonDead_ = false;
    }
    daemon_.resume();
    for (const int resource : {RLIMIT_NOFILE, RLIMIT_AS, RLIMIT_FSIZE})
        limitDaemon(resource, kNoLimit);
    proxy_.heal();
    for (int door = 0; door < kDoors; ++door) {
        test::ChildProcess& client = *clients_.at(door);
        client.kill(SIGCONT);
        if (client.isRunning()) continue;
        if (client.wait() != -SIGKILL)
            crashes_ += "client " + std::to_string(door) + ": " + client.errors() + "\n";
        start(door);
    }
}

std::string Chaos::calm() {
    board_->calm = ++calms_;
    std::string wrong = awaitAll();
    isAnswered_ = calms_ % 4 == 0;
    if (wrong.empty()) wrong = isAnswered_ ? checkAnswer() : checkQueries(false);
    if (wrong.empty()) wrong = checkConnections();
    if (wrong.empty()) wrong = checkDaemon();
    return wrong;
}

bool Chaos::isDeaf(int peer) const {
    const Board::Peer& slot = board_->peers.at(peer);
    const auto isLate = [this](const std::atomic<int>& calm) { return calm < calms_; };
    if (peer == kService) return !slot.isConnected;
    return std::ranges::any_of(slot.heard, isLate) || std::ranges::any_of(slot.replied, isLate);
}

// Who has never been connected tries without a pause: a step amid its attempt would fail it.
void Chaos::wakeWhoIsCutOff() {
    for (int door = 0; door < kDoors; ++door) {
        Board::Peer& slot = board_->peers.at(door);
        if (!slot.isCutOff) continue;
        slot.ahead += 16'000;
        clients_.at(door)->kill(SIGWINCH);
    }
}

// Everybody hears everybody, and gets everybody's reply.
std::string Chaos::awaitAll() {
    int looks = 0;
    std::string wrong;
    static_cast<void>(eventually([&] {
        if (++looks % 100 == 0) wakeWhoIsCutOff();
        wrong = crashes_;
        for (int door = 0; door < kDoors; ++door)
            if (isDeaf(door)) wrong += "client " + std::to_string(door) + " is deaf\n";
        return wrong.empty() || board_->faults > 0 || !crashes_.empty();
    }));
    for (const Child& client : clients_)
        if (!client->isRunning()) wrong += "a client has ended: " + client->errors() + '\n';
    if (!daemon_.isRunning()) wrong += "the daemon has ended: " + daemon_.log() + '\n';
    return board_->faults > 0 ? board_->fault.data() : wrong;
}

// Nobody has lost its connection but those to whom it was done. A service may not know yet that it
// has, unless it has just answered.
std::string Chaos::checkConnections() {
    std::string wrong;
    for (int i = 0; i < kDoors; ++i) {
        const int losses = board_->peers.at(i).losses;
        if (std::exchange(losses_.at(i), losses) != losses && !mayHaveLost_.at(i))
            wrong += "door " + std::to_string(i) + " has lost its connection\n";
        if (i != kService || isAnswered_) mayHaveLost_.at(i) = false;
    }
    return wrong;
}

std::string Chaos::checkDaemon() {
    std::string wrong = daemon_.lawBrokenNow();
    const auto descriptors = [this] { return test::openDescriptors(daemon_.pid()); };
    if (descriptors_ == 0) descriptors_ = descriptors();
    if (queries_.empty() && !eventually([&] { return descriptors() <= descriptors_; }))
        wrong += "the daemon has " + std::to_string(descriptors()) + " descriptors, at first " +
                 std::to_string(descriptors_) + ":\n" + test::listOfDescriptors(daemon_.pid());
    const auto resident = [this] { return test::residentBytes(daemon_.pid()); };
    if (!test::kIsWatched && !eventually([&] { return resident() <= kMostResident; }))
        wrong += "the daemon has " + std::to_string(resident()) + " bytes\n";
    return wrong;
}

// A query gives the whole answer, or fails.
std::string Chaos::checkQueries(bool areAll) {
    std::string wrong;
    for (Query& query : queries_) {
        if (areAll && !eventually([&] { return !query.process->isRunning(); }))
            wrong += "a query does not end\n";
        if (query.process->isRunning()) continue;
        const int status = query.process->wait();
        ++(status == 0 ? answered_ : failed_);
        const std::string errors = query.process->errors();
        const bool isRight =
            status == 1 || (status == 0 && query.process->output() == answerOf(query.rows));
        if (!isRight)
            wrong += "a query of " + std::to_string(query.rows) + " rows ended with " +
                     std::to_string(status) + ": " + errors + '\n';
        query.process.reset();
    }
    std::erase_if(queries_, [](const Query& query) { return query.process == nullptr; });
    return wrong;
}

std::string Chaos::checkAnswer() {
    const long long before = answered_;
    std::string wrong = checkQueries(true);
    const bool isAnswered = eventually([&] {
        ask(false);
        wrong += checkQueries(true);
        return answered_ > before || !wrong.empty();
    });
    return isAnswered ? wrong : "the service does not answer";
}

std::string Chaos::finish() {
    std::string wrong = checkQueries(true);
    board_->isOver = true;
    clients_.at(kService)->kill(SIGTERM);
    for (const Child& client : clients_)
        if (client->wait() != 0) wrong += "a client: " + client->errors() + '\n';
    daemon_.askToStop();
    if (daemon_.waitForEnd() != 0) wrong += "the daemon: " + daemon_.log() + "\n";
    if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) wrong += "a child is left\n";
    return wrong;
}

std::string Chaos::story() const {
    std::string text;
    for (const std::string& line : story_) text += line + '\n';
    return text;
}

std::string Chaos::summary() const {
    std::uint64_t messages = 0;
    std::uint64_t missed = 0;
    std::uint64_t told = 0;
    for (const Board::Peer& peer : board_->peers) {
        messages += peer.messages;
        missed += peer.missed;
        told += peer.told;
    }
    return std::to_string(faults_) + " faults in " + std::to_string(calms_) +
           " waves: " + std::to_string(messages) + " messages heard, " + std::to_string(missed) +
           " missed where nothing was cut, " + std::to_string(told) + " told as lost; " +
           std::to_string(answered_) + " queries answered, " + std::to_string(failed_) + " failed";
}

}  // namespace kvx::chaos
