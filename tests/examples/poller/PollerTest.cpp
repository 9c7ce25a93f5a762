// Two pollers, real SNMP agents and a follower, who sees what each of them does and suffers.

#include <arpa/inet.h>
#include <sys/socket.h>

#include "platform/Descriptor.h"
#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

/// A UDP socket of the loopback, and its port.
std::pair<platform::Descriptor, int> bound() {
    platform::Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in at{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}};
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    bind(socket.get(), reinterpret_cast<sockaddr*>(&at), size);
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&at), &size);
    return {std::move(socket), ntohs(at.sin_port)};
}

/// A real `snmpd` on a free port of the loopback, with files of its own only.
class SnmpAgent {
  public:
    explicit SnmpAgent(const std::string& location) { place(location); }
    std::string address() const { return "udp:127.0.0.1:" + std::to_string(port_); }

    void start() {
        process_.emplace(
            "/usr/sbin/snmpd",
            std::vector<std::string>{"-f", "-Le", "-C", "-c", files_.file("conf"), address()},
            std::vector<std::string>{"MIBS=", "SNMPCONFPATH=" + files_.path(),
                                     "SNMP_PERSISTENT_DIR=" + files_.path()});
        EXPECT_NE(process_->awaitError("NET-SNMP version"), "") << process_->errors();
    }
    void stop() {
        process_->kill(SIGTERM);
        process_->wait();
    }
    void move(const std::string& location) {
        place(location);
        process_->kill(SIGHUP);
    }

  private:
    void place(const std::string& location) {
        std::ofstream(files_.file("conf")) << "rocommunity public\nsysLocation " + location + "\n";
    }

    const int port_ = bound().second;
    TemporaryDirectory files_;
    std::optional<ChildProcess> process_;
};

/// Sends back what it gets, which is no answer.
class Echo {
  public:
    std::string address() const { return "udp:127.0.0.1:" + std::to_string(at_.second); }
    ~Echo() {
        shutdown(at_.first.get(), SHUT_RD);
        thread_.join();
    }

  private:
    void run() {
        std::array<char, 2048> bytes{};
        sockaddr_in from{};
        socklen_t size = sizeof from;
        auto* const peer = reinterpret_cast<sockaddr*>(&from);
        ssize_t got = 0;
        while ((got = recvfrom(at_.first.get(), bytes.data(), bytes.size(), 0, peer, &size)) > 0) {
            sendto(at_.first.get(), bytes.data(), static_cast<std::size_t>(got), 0, peer, size);
        }
    }

    const std::pair<platform::Descriptor, int> at_ = bound();
    std::thread thread_{[this] { run(); }};
};

struct PollerTest : testing::Test {
    std::unique_ptr<ChildProcess> startPoller(const std::string& name) {
        return bus_.start("poller",
                          {name, "1", "core-1=public@" + core_.address(),
                           "edge-1=public@" + edge_.address(), "odd=public@" + odd_.address()});
    }
    static std::string row(const std::string& agent, const std::string& object,
                           const std::string& value) {
        return "agent=" + agent + " object=" + object + " value=" + value;
    }
    // How often the follower was given it.
    int told(const std::string& part) const { return countOf(follower_->output(), part); }
    bool isTold(const std::string& part, int times = 1) const {
        return eventually([&] { return told(part) >= times; });
    }

    Installation bus_;
    SnmpAgent core_{"cellar"};
    SnmpAgent edge_{"roof"};
    Echo odd_;
    std::unique_ptr<ChildProcess> follower_;
};

TEST_F(PollerTest, TellsEachChangeOnceWhoeverOfTwoFindsIt) {
    const auto one = startPoller("one");
    const auto two = startPoller("two");
    ASSERT_TRUE(eventually([&] { return bus_.kvx({"query", "Poller", "edge-1"}).status == 0; }));
    follower_ = bus_.start("kvx", {"follow", "Poller", "*"});

    // The lot gives each of these names one of these agents.
    ASSERT_TRUE(isTold(row("core-1", "poller", "one"))) << follower_->errors();
    ASSERT_TRUE(isTold(row("edge-1", "poller", "two")));
    EXPECT_TRUE(isTold(row("core-1", "state", "down")));
    EXPECT_TRUE(isTold(row("odd", "state", "down")));
    core_.start();
    edge_.start();
    EXPECT_TRUE(isTold("changed - " + row("core-1", "state", "up")));
    EXPECT_TRUE(isTold(row("core-1", "sysLocation", "cellar")));
    EXPECT_TRUE(isTold(row("edge-1", "sysLocation", "roof")));

    core_.move("attic");
    EXPECT_TRUE(isTold("changed - " + row("core-1", "sysLocation", "attic")));

    // The loopback counts what is asked; the agent looks every three seconds.
    EXPECT_TRUE(isTold("changed - agent=edge-1 object=ifInOctets/1", 2));
    edge_.stop();
    EXPECT_TRUE(isTold("changed - " + row("edge-1", "state", "down")));
    edge_.start();
    EXPECT_TRUE(isTold("changed - " + row("edge-1", "state", "up"), 2));
    EXPECT_TRUE(isTold("changed - agent=edge-1 object=sysUpTime"));

    one->kill(SIGKILL);
    EXPECT_TRUE(isTold("changed - " + row("core-1", "poller", "two")));
    core_.move("garage");
    EXPECT_TRUE(isTold(row("core-1", "sysLocation", "garage")));
    for (const char* where : {"cellar", "attic", "garage"}) {
        EXPECT_EQ(told(row("core-1", "sysLocation", where)), 1) << follower_->output();
    }
    EXPECT_EQ(told("changed - agent=core-1 object=sysUpTime"), 0) << "it never started again";
    EXPECT_EQ(told("changed - agent=edge-1 object=sysUpTime"), 1);
    EXPECT_EQ(told(row("edge-1", "sysLocation", "roof")), 1) << "that of one that was down stays";

    const auto now = bus_.kvx({"query", "Poller", "core-1"});
    EXPECT_NE(now.output.find("garage"), std::string::npos) << now.output << now.errors;
    EXPECT_EQ(now.output.find("edge-1"), std::string::npos) << now.output;
    two->kill(SIGTERM);
    EXPECT_EQ(two->wait(), 0) << two->errors();
}

TEST_F(PollerTest, SaysWhatIsWrongWithItsCommandLine) {
    const std::string good = "core-1=public@" + core_.address();
    const std::vector<std::pair<std::vector<std::string>, std::string>> bad = {
        {{"one", "0", good}, "usage: "},
        {{"one", "1s", good}, "usage: "},
        {{"one", "1", "public@127.0.0.1"}, "has no '=' or no '@'"},
        {{"one", "1", "core-1=public@udp:no.such.host.invalid"}, "is not found"},
        {{"one", "1", good, good}, "or two are"}};
    for (const auto& [arguments, why] : bad) {
        const auto refused = bus_.run("poller", arguments);
        EXPECT_EQ(refused.status, 1);
        EXPECT_NE(refused.errors.find(why), std::string::npos) << refused.errors;
    }
}

}  // namespace
}  // namespace kvx::test
