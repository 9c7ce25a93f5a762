// Where the daemon listens, and whom it lets in.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "platform/Process.h"
#include "rv/error/rvCodes.h"
#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
#include "tests/support/Texts.h"

namespace kvx::test {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

class Addresses : public testing::Test {
  protected:
    [[nodiscard]] Texts listening(Texts more = {}) const {
        more.insert(more.end(), {"-listen", "unix:" + path});
        return more;
    }
    // What is said by one that cannot listen at `where`.
    static std::string failureAt(const std::string& where) {
        ChildProcess program(KVX_RVD_PROGRAM, {"-listen", "tcp:0", "-listen", "unix:" + where});
        EXPECT_EQ(program.wait(), 1) << where;
        EXPECT_EQ(program.output(), "");
        return program.errors();
    }

    const TemporaryDirectory directory;
    const std::string path = directory.file("rvd");
};

TEST_F(Addresses, ShareOneBusTellClientsTheirAddressAndKnowProcessAndUserOfAUnixSocket) {
    Daemon daemon(listening({"-listen", "tcp:0", "-address", "10.1.2.3", "-v"}));
    EXPECT_NE(daemon.awaitLog(" unix:" + path), "") << "all are named";
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0666U) << "for every user";
    RawClient here(path);
    RawClient tcp(daemon.port());
    for (RawClient* client : {&here, &tcp}) {
        client->negotiate();
        const wire::Reply reply = client->announce("", "");
        EXPECT_EQ(loadBig32(&reply.ipAddress), 0x0A010203U) << "as every local client";
        EXPECT_EQ(loadBig16(&reply.ipPort), client->localPort());
        client->listen("A.>");
        client->settle();
    }
    const std::string large(3'000'000, 'x');
    here.publish("A.B", large);
    for (RawClient* client : {&here, &tcp}) EXPECT_EQ(client->expectText(), large);
    tcp.publish("A.C", large);
    for (RawClient* client : {&here, &tcp}) EXPECT_EQ(client->expectText(), large);
    const std::string who =
        "unix pid " + std::to_string(getpid()) + " uid " + std::to_string(geteuid());
    EXPECT_NE(daemon.awaitLog(who + " joins service"), "");
    daemon.askToStop();
    for (RawClient* client : {&here, &tcp}) EXPECT_TRUE(client->expectClosed());
    here.close();
    tcp.close();
    EXPECT_EQ(daemon.waitForEnd(), 0);
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(Addresses, TakeThePlaceOfADeadSocketAndOfNothingElse) {
    {
        const Daemon first(listening());
        EXPECT_TRUE(holds(failureAt(path), "another process serves there"));
        RawClient::session(path).settle();
    }
    EXPECT_TRUE(fs::exists(path)) << "it was killed";
    Daemon second(listening());
    RawClient::session(path).settle();
    const std::string other = directory.file("other");
    std::ofstream(other) << "text";
    EXPECT_TRUE(holds(failureAt(other), "no socket"));
    EXPECT_TRUE(holds(failureAt(directory.file("no/rvd")), "No such file"));
    EXPECT_EQ(contentOf(other), "text");
    fs::rename(other, path);
    second.askToStop();
    EXPECT_EQ(second.waitForEnd(), 0);
    EXPECT_EQ(contentOf(path), "text") << "not its own any more";
}

TEST_F(Addresses, OfADeadSocketGoToOneOfManyThatStartAtOnce) {
    { const Daemon dead(listening()); }
    std::vector<std::unique_ptr<ChildProcess>> all;
    for (int i = 0; i < 8; ++i) {
        all.push_back(
            std::make_unique<ChildProcess>(KVX_RVD_PROGRAM, Texts{"-listen", "unix:" + path}));
    }
    const auto running = [&] {
        return std::ranges::count_if(all, [](const auto& one) { return one->isRunning(); });
    };
    EXPECT_TRUE(eventually([&] { return running() == 1; })) << running();
    RawClient::session(path).settle();
    for (const auto& one : all) {
        if (one->isRunning()) continue;
        EXPECT_EQ(one->wait(), 1);
        EXPECT_TRUE(holds(one->errors(), "another process serves there"));
    }
}

// A connection from another address of the loopback.
RawClient from(const char* address, std::uint16_t port) {
    int error = 0;
    platform::Socket socket = platform::createTcpSocket(error);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    inet_pton(AF_INET, address, &name.sin_addr);
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    EXPECT_EQ(platform::connectSocket(socket.get(), {platform::kLoopbackAddress, port}), 0);
    return RawClient(std::move(socket));
}

TEST_F(Addresses, TurnAwayWhoIsNotAllowedWithOneAnswerAndFewLines) {
    constexpr int kStrangers = 3;
    const std::string stranger = std::to_string(geteuid() + 1);
    Daemon daemon(
        listening({"-allow", "127.0.0.1", "-allow", "127.1.0.0/16", "-allow-user", stranger}));
    RawClient::session(daemon.port()).settle();
    for (int i = 0; i < kStrangers; ++i) {
        RawClient far = from("127.0.0.2", daemon.port());
        RawClient near(path);
        for (RawClient* client : {&far, &near}) {
            client->negotiate();
            EXPECT_EQ(client->announce("", "").code, session_code::kNotPermitted);
            EXPECT_FALSE(client->expectClosed());
        }
    }
    RawClient neighbour = from("127.1.2.3", daemon.port());
    neighbour.negotiate();
    EXPECT_EQ(neighbour.announce("", "").code, 0);
    neighbour.close();
    daemon.askToStop();
    EXPECT_EQ(daemon.waitForEnd(), 0);
    const std::string log = daemon.log();
    const std::string reason = " is turned away: not allowed by -allow or -allow-user";
    EXPECT_EQ(countOf(log, reason), 1) << log;
    EXPECT_TRUE(holds(log, " connections.not_allowed=" + std::to_string(2 * kStrangers)));
    for (const std::string& user : {std::to_string(geteuid()), platform::userName()}) {
        if (user == "Unknown user") continue;  // of a container, with an id alone
        const Daemon friendly(listening({"-allow-user", user}));
        RawClient::session(path).settle();
    }
}

}  // namespace
}  // namespace kvx::test
