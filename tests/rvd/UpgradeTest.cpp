// A daemon that is replaced while it works: by another version, and by programs that fail.

#include <unistd.h>

#include "platform/UnixSocket.h"
#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
#include "tests/support/Supervisor.h"
#include "tests/support/Told.h"

namespace kvx::test {
namespace {

// The path of the daemon's program leads to the one that is installed.
class Upgrade : public testing::Test {
  protected:
    void install(const std::string& program) {
        unlink(path.c_str());
        ASSERT_EQ(symlink(program.c_str(), path.c_str()), 0);
    }
    RawClient session() { return RawClient::session(daemon->port()); }

    TemporaryDirectory directory;
    const std::string path = directory.file("rvd");
    const std::string unixPath = directory.file("socket");
    std::unique_ptr<Daemon> daemon = [this] {
        install(KVX_RVD_PROGRAM);
        return std::make_unique<Daemon>(std::vector<std::string>{"-listen", "unix:" + unixPath},
                                        std::vector<std::string>{}, ":", path);
    }();
};

constexpr const char* kEnd = "end";

// So long that what a slow one does not read is more than sockets take.
std::string numbered(std::uint64_t number) {
    return std::to_string(number) + std::string(300, '.');
}

// Publishes 0, 1, ... until told to stop, then the end.
class Publisher {
  public:
    explicit Publisher(RawClient client) : client_(std::move(client)) {}
    ~Publisher() { stop(); }
    void stop() {
        stopped_ = true;
        if (thread_.joinable()) thread_.join();
    }
    [[nodiscard]] std::uint64_t count() const { return count_; }

  private:
    void run() {
        while (!stopped_) {
            ByteVector some;
            for (int i = 0; i < 20; ++i) {
                const ByteVector next = dataMessage("LOAD.A", numbered(count_++));
                some.insert(some.end(), next.begin(), next.end());
            }
            client_.send(some);
            usleep(1'000);
        }
        client_.publish("LOAD.A", kEnd);
    }

    RawClient client_;
    std::atomic<std::uint64_t> count_ = 0;
    std::atomic<bool> stopped_ = false;
    std::thread thread_{[this] { run(); }};
};

// Reads up to the end. What is wrong with what came, when that is not 0, 1, ... each once.
std::string readAll(RawClient& client, std::uint64_t& count) {
    for (count = 0;; ++count) {
        const std::string text = client.expectText();
        if (text == kEnd) return {};
        if (text != numbered(count)) return text + " came for " + std::to_string(count);
    }
}

TEST_F(Upgrade, FiveTimesUnderLoadNoMessageIsLostOrDoubled) {
    // What it does not read waits in the daemon, and is handed over five times.
    RawClient slow = RawClient::nameless(daemon->port(), 4'096);
    slow.listen("LOAD.*");
    slow.settle();
    RawClient quick = session();
    RawClient local = RawClient::session(unixPath);
    for (RawClient* client : {&quick, &local}) {
        client->listen("LOAD.>");
        client->settle();
    }
    std::uint64_t counts[3] = {};
    auto quickly = std::async(std::launch::async, [&] { return readAll(quick, counts[0]); });
    auto locally = std::async(std::launch::async, [&] { return readAll(local, counts[1]); });
    Publisher publisher(session());
    std::atomic<bool> isOver = false;
    auto newcomers = std::async(std::launch::async, [&] {
        int count = 0;
        for (; !isOver; ++count) RawClient::session(daemon->port()).settle();
        return count;
    });
    for (int i = 0; i < 5; ++i) {
        install(i % 2 == 0 ? KVX_RVD_NEXT : KVX_RVD_PROGRAM);
        const std::uint64_t before = publisher.count();
        EXPECT_EQ(daemon->replace(), "");
        EXPECT_TRUE(eventually([&] { return publisher.count() > before + 5'000; }));
    }
    publisher.stop();
    isOver = true;
    EXPECT_GT(newcomers.get(), 0);
    EXPECT_EQ(quickly.get(), "");
    EXPECT_EQ(locally.get(), "");
    EXPECT_EQ(readAll(slow, counts[2]), "");
    for (const std::uint64_t count : counts) EXPECT_EQ(count, publisher.count());
    EXPECT_NE(daemon->log().find("version 99.0.0"), std::string::npos);
}

TEST_F(Upgrade, GoesOnWhereEachConnectionIs) {
    RawClient half = session();  // has sent half a message
    const ByteVector message = dataMessage("A.HALF", "whole");
    const wire::Bytes bytes = message;
    half.send(bytes.first(message.size() / 2));
    RawClient early(daemon->port());  // has been greeted
    early.readGreeting();
    RawClient greets(daemon->port());  // is within its greeting
    greets.readGreeting();
    const auto greeting = wire::encode(wire::Greeting{0, wire::kProtocolV4, 1});
    greets.send(wire::Bytes(greeting).first(5));
    RawClient negotiated(daemon->port());
    negotiated.negotiate();

    RawClient listener = session();  // twice, and with wildcards
    for (const char* subject : {"A.>", "B", "B", "A.*", "_INBOX.ME"}) listener.listen(subject);
    RawClient alien = RawClient::session(daemon->port(), "other", "");
    alien.listen(">");
    RawClient follower = session();
    follower.listen("_RVD.INTEREST");
    Told told;
    const auto hearUntil = [&](const char* what) {
        while (told.said.find(what) == std::string::npos) {
            told.takeMessage(follower.expectNext().bytes);
        }
        return std::exchange(told.said, "");
    };
    hearUntil("_INBOX.ME");

    install(KVX_RVD_NEXT);
    ASSERT_EQ(daemon->replace(), "");
    half.send(bytes.subspan(message.size() / 2));
    EXPECT_EQ(listener.expectText(), "whole") << "once, though two of its listens match";
    half.cancel("A.HALF");  // it never listened
    listener.cancel("B");
    listener.settle();
    half.publish("B", "one listen is left");
    EXPECT_EQ(listener.expectText(), "one listen is left");
    listener.cancel("B");
    listener.settle();
    half.publish("B", "none is left");
    half.publish("A.1", "next");
    EXPECT_EQ(listener.expectText(), "next");
    greets.send(wire::Bytes(greeting).subspan(5));
    early.greet(wire::kProtocolV4, 0, 1);
    for (RawClient* client : {&greets, &early}) {
        client->sendBlock(wire::clientStep(client->readBlock()).block);
        EXPECT_EQ(wire::clientStep(client->readBlock()).action,
                  wire::NegotiationStep::Action::Accepted);
    }
    EXPECT_EQ(negotiated.announce("", "").code, 0U);
    negotiated.listen("C");
    negotiated.settle();
    RawClient::session(unixPath).publish("C", "through the same socket");
    EXPECT_EQ(negotiated.expectText(), "through the same socket");
    alien.publish("OWN", "nobody else's");
    EXPECT_EQ(alien.expectText(), "nobody else's");

    // Who follows is told all again, and then what changes.
    EXPECT_EQ(hearUntil("_INBOX.ME").find("LATER"), std::string::npos);
    negotiated.listen("LATER");
    hearUntil("LATER");
}

TEST_F(Upgrade, OneThatFailsLeavesTheOldOneServingAndSaysWhy) {
    RawClient listener = session();
    listener.listen("A");
    listener.settle();
    const auto failure = [&](const std::string& program, const std::string& fault = "") {
        install(program);
        std::ofstream(path + ".fault") << fault;
        const std::string reason = daemon->replace();
        listener.publish("A", fault + " goes on");
        EXPECT_EQ(listener.expectText(), fault + " goes on");
        RawClient::session(unixPath).settle();
        return reason;
    };
    EXPECT_NE(failure("/nowhere").find("No such file"), std::string::npos);
    EXPECT_NE(failure("/bin/false").find("has ended before it said"), std::string::npos);
    EXPECT_NE(failure(KVX_RVD_ODD, "another state").find("version 99"), std::string::npos);
    EXPECT_NE(failure(KVX_RVD_ODD, "refuses").find("it is Friday"), std::string::npos);
    EXPECT_NE(failure(KVX_RVD_ODD, "dies").find("not become ready"), std::string::npos);
    EXPECT_NE(failure(KVX_RVD_ODD, "hangs").find("takes too long"), std::string::npos);
    install(KVX_RVD_PROGRAM);
    EXPECT_EQ(daemon->replace(), "");
}

TEST_F(Upgrade, ASignalWhileItHandsOverIsPassedOnAndItsDeathIsNoLoss) {
    for (const std::string fault : {"ends", "kills"}) {
        install(KVX_RVD_ODD);
        std::ofstream(path + ".fault") << fault;
        EXPECT_EQ(daemon->replace(), "");
        const bool isToEnd = daemon->log().find("took over and is to end") != std::string::npos;
        EXPECT_EQ(isToEnd, fault == "ends");
        install(KVX_RVD_PROGRAM);
        daemon->restart();
    }
}

TEST_F(Upgrade, ThereIsAsMuchRoomForConnectionsAsBefore) {
    Daemon small({}, {}, "ulimit -n 80", path);
    std::vector<RawClient> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(RawClient::session(small.port()));
        if (i == 30) {
            EXPECT_EQ(small.replace(), "");
        }
    }
    for (RawClient& client : clients) client.settle();
}

constexpr const char* kProgram = R"("$0" "$@")";

TEST_F(Upgrade, IsToldToWhoeverSupervisesTheService) {
    for (const std::string whom : {"$$", "1"}) {
        Supervisor supervisor;
        Daemon served({}, {}, supervisor.command(kProgram, {}, whom), path);
        EXPECT_EQ(supervisor.hear().text, "READY=1");
        // It waits until all before the barrier has been heard.
        auto heard = std::async(std::launch::async,
                                [&supervisor] { return supervisor.hearUntil("BARRIER=1"); });
        EXPECT_EQ(served.replace(), "");
        std::vector<std::string> told = heard.get();
        const bool isAsked = whom == "$$";
        EXPECT_EQ(std::erase(told, "WATCHDOG=1") > 0, isAsked);
        EXPECT_EQ(told, (std::vector<std::string>{"MAINPID=" + std::to_string(served.pid()),
                                                  "BARRIER=1"}));
        const auto tellsToo = [&] { return supervisor.hear().pid == served.pid(); };
        if (isAsked) {
            EXPECT_TRUE(eventually(tellsToo));
        }
    }
}

TEST_F(Upgrade, SocketsThatItIsStartedWithAreServedAndLeftToTheSupervisor) {
    int error = 0;
    std::string problem;
    const platform::Socket tcp = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
    const std::string passed = directory.file("passed");
    const std::string own = directory.file("own");
    const platform::Socket local = platform::listenUnix(passed, 10, problem);
    Supervisor supervisor;
    Daemon served({"-listen", "unix:" + own}, {},
                  supervisor.command(kProgram, {local.get(), tcp.get()}), path);
    const std::uint16_t port = platform::localEndpoint(tcp.get())->port;
    const auto serves = [&] {
        RawClient::session(port).settle();
        RawClient::session(passed).settle();
        return served.port() == port && !std::filesystem::exists(own);
    };
    EXPECT_TRUE(serves());
    EXPECT_EQ(served.replace(), "");
    EXPECT_TRUE(serves());
    const std::string variables = contentOf("/proc/" + std::to_string(served.pid()) + "/environ");
    EXPECT_EQ(variables.find("LISTEN_"), std::string::npos);
    EXPECT_NE(variables.find("NOTIFY_SOCKET"), std::string::npos);
    served.askToStop();
    EXPECT_EQ(served.waitForEnd(), 0);
    EXPECT_TRUE(std::filesystem::exists(passed));

    ChildProcess odd("/bin/bash", {"-c", R"(LISTEN_PID=$$ LISTEN_FDS=1 exec "$0" 3</dev/null)",
                                   KVX_RVD_PROGRAM});
    EXPECT_EQ(odd.wait(), 1);
    EXPECT_NE(odd.errors().find("descriptor 3"), std::string::npos) << odd.errors();
}

}  // namespace
}  // namespace kvx::test
