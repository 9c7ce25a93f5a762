#pragma once

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/chaos/Board.h"
#include "tests/support/Daemon.h"
#include "tests/support/Proxy.h"
#include "tests/support/RawClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::chaos {

/// A daemon, peers, a service and queries, all of them real processes, with a proxy between them
/// and the daemon; and what is done to them. All chance in it comes from one seed.
class Chaos {
  public:
    explicit Chaos(unsigned seed);
    Chaos(const Chaos&) = delete;
    Chaos& operator=(const Chaos&) = delete;

    /// Some faults at once, and the calm after them, in which everything must be as it should.
    /// Returns what is not; empty when all is well. `most` faults at most.
    std::string wave(int most);
    /// Ends all processes as a user would; what is wrong then.
    std::string finish();

    [[nodiscard]] int faults() const { return faults_; }
    /// The last faults, one a line, each with its number.
    [[nodiscard]] std::string story() const;
    /// What has happened in all.
    [[nodiscard]] std::string summary() const;

  private:
    static constexpr int kDoors = kPeers + 1;  // of those that stay; queries have one more

    struct Fault;
    struct Query {
        std::unique_ptr<test::ChildProcess> process;
        int rows;
    };
    using Child = std::unique_ptr<test::ChildProcess>;

    static const std::vector<Fault>& table();
    int random(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
    [[nodiscard]] bool oneIn(int chances) { return random(chances) == 0; }
    test::Proxy::Way anyWay() { return oneIn(2) ? test::Proxy::Way::Up : test::Proxy::Way::Down; }

    [[nodiscard]] std::vector<std::string> surroundings() const;
    Child start(const std::string& program, const std::vector<std::string>& arguments) const;
    void start(int door);
    void ask(bool isDiskFull);
    void becomeStrangers();
    void limitDaemon(int resource, std::uint64_t most) const;

    void heal();
    [[nodiscard]] std::string calm();
    [[nodiscard]] bool isDeaf(int peer) const;
    void wakeWhoIsCutOff();
    [[nodiscard]] std::string awaitAll();
    [[nodiscard]] std::string checkConnections();
    [[nodiscard]] std::string checkDaemon();
    [[nodiscard]] std::string checkQueries(bool areAll);
    [[nodiscard]] std::string checkAnswer();

    std::minstd_rand random_;
    const test::TemporaryDirectory directory_;
    const SharedBoard board_;
    test::Daemon daemon_;
    test::Proxy proxy_;
    std::vector<Child> clients_;  // by door: the peers, and the service
    std::string crashes_;
    std::vector<Query> queries_;
    std::vector<test::RawClient> strangers_;
    std::array<bool, kDoors> mayHaveLost_{};  // by door
    std::array<int, kDoors> losses_{};        // up to the last calm
    bool isAnswered_ = false;                 // in this calm
    bool isDaemonDead_ = false;
    int calms_ = 0;
    int faults_ = 0;
    long long answered_ = 0;
    long long failed_ = 0;
    long long descriptors_ = 0;  // of the daemon in the first calm
    std::deque<std::string> story_;
};

}  // namespace kvx::chaos
