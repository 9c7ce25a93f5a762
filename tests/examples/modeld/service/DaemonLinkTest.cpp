#include "examples/modeld/service/DaemonLink.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/support/Daemon.h"
#include "tests/support/Nets.h"

namespace modeld {
namespace {

constexpr int kNotSent = -220545;

TEST(DaemonLink, TellsALossAndAReturnOnceAndCountsWhatCouldNotBeSent) {
    kvx::test::Daemon daemon;
    kvx::test::Home home(daemon.text());
    CVekEngine engine(1, "link", "TEST", SERV_UNKNOWN);
    const ReportsInLog reports;
    DaemonLink link(engine);
    ASSERT_TRUE(link.start());
    const unsigned losses = DaemonLink::losses();
    const rv_Hook sendInVain = [](rv_Session, const void*, void*) {
        EXPECT_FALSE(DaemonLink::isUp());
        for (int i = 0; i < 180; ++i) CVekError(kNotSent, "CVekSendQueueItem", 210);
        CVekError(-220552, "CVekNet", 1, "\x1b");
        return 0;
    };
    rv_AddHook(engine.m_session->handle(), RV_HOOK_DISCONNECT, sendInVain, nullptr);
    testing::internal::CaptureStderr();
    daemon.restart();
    EXPECT_TRUE(kvx::test::runUntil<CVekRvNet>(
        engine, [&] { return DaemonLink::losses() == losses + 1 && DaemonLink::isUp(); }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "modeld: warning: the daemon is away; nothing can be sent until it is back\n"
              "modeld: error: CVekNet:1: " +
                  std::string(CVekError::CatalogueText(-220552)) +
                  " (-220552): \\x1b\n"
                  "modeld: info: the daemon is back; 180 messages could not be sent meanwhile\n");
}

// The sockets that are connected to the daemon, in the order of their opening.
std::vector<int> connections(const kvx::test::Daemon& daemon) {
    std::vector<int> found;
    for (int socket = 3; socket < 256; ++socket) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            ntohs(peer.sin_port) == daemon.port()) {
            found.push_back(socket);
        }
    }
    return found;
}

TEST(DaemonLink, TellsALossOnceWhicheverSessionFindsItLast) {
    kvx::test::Daemon daemon;
    kvx::test::Home home(daemon.text());
    for (const bool isEnginesLast : {false, true}) {
        CVekEngine engine(1, "link", "TEST", SERV_MODEL);
        DaemonLink link(engine);
        ASSERT_TRUE(link.start());
        const auto sockets = connections(daemon);
        ASSERT_EQ(sockets.size(), 2U);
        int last = sockets[isEnginesLast ? 0 : 1];
        const rv_Hook loseLast = [](rv_Session, const void*, void* socket) {
            shutdown(std::exchange(*static_cast<int*>(socket), -1), SHUT_RDWR);
            return 0;
        };
        RvSession& first = *(isEnginesLast ? engine.m_ftSession : engine.m_session);
        RvSession& second = *(isEnginesLast ? engine.m_session : engine.m_ftSession);
        rv_AddHook(first.handle(), RV_HOOK_RECONNECT, loseLast, &last);
        int returns = 0;
        const rv_Hook count = [](rv_Session, const void*, void* counter) {
            return ++*static_cast<int*>(counter), 0;
        };
        rv_AddHook(second.handle(), RV_HOOK_RECONNECT, count, &returns);
        testing::internal::CaptureStderr();
        shutdown(sockets[isEnginesLast ? 1 : 0], SHUT_RDWR);
        EXPECT_TRUE(kvx::test::runUntil<CVekRvNet>(
            engine, [&] { return returns == 1 && DaemonLink::isUp(); }));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "modeld: warning: the daemon is away; nothing can be sent until it is back\n"
                  "modeld: info: the daemon is back; 0 messages could not be sent meanwhile\n");
    }
}

}  // namespace
}  // namespace modeld
