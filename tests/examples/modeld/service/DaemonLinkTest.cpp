#include "examples/modeld/service/DaemonLink.h"

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
        engine, [&] { return DaemonLink::losses() == losses + 2 && DaemonLink::isUp(); }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "modeld: warning: the daemon is away; nothing can be sent until it is back\n"
              "modeld: error: CVekNet:1: " +
                  std::string(CVekError::CatalogueText(-220552)) +
                  " (-220552): \\x1b\n"
                  "modeld: info: the daemon is back; 180 messages could not be sent meanwhile\n");
}

}  // namespace
}  // namespace modeld
