// A daemon that is replaced while it works: by another version, and by programs that fail.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <thread>

#include "platform/Descriptor.h"
#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
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
    RawClient slow(daemon->port(), 4'096);  // what it does not read waits in the daemon, and is
    slow.negotiate();                       // handed over five times
    slow.announce("", "");
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

TEST_F(Upgrade, IsToldToWhoeverSupervisesTheService) {
    const std::string name = directory.file("notify");
    sockaddr_un address{AF_UNIX, {}};
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const platform::Descriptor supervisor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(supervisor.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto hear = [&supervisor] {
        char text[100] = "";
        return std::string(text,
                           static_cast<std::size_t>(recv(supervisor.get(), text, sizeof text, 0)));
    };
    Daemon served({}, {"NOTIFY_SOCKET=" + name}, ":", path);
    EXPECT_EQ(hear(), "READY=1");
    // It waits until all before the barrier has been heard.
    auto heard = std::async(std::launch::async, [&] {
        const std::string first = hear();
        return first + ' ' + hear();
    });
    EXPECT_EQ(served.replace(), "");
    EXPECT_EQ(heard.get(), "MAINPID=" + std::to_string(served.pid()) + " BARRIER=1");
}

}  // namespace
}  // namespace kvx::test
