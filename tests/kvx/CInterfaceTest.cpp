// The C interface as a C program uses it, which checks what it gets itself.

#include "kvx/kvx.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"
#include "tests/support/Texts.h"

namespace kvx::test {
namespace {

using Part = std::vector<std::string>;

TEST(CInterface, ServesAndAsksWithoutAForeignThread) {
    const Daemon daemon;
    const Home home(daemon.text());
    auto client = Client::open();
    const auto echo = client->listen("ECHO", [&](const Delivery& delivery) {
        client->publish(delivery.replySubject, delivery.message);
    });
    ChildProcess service(KVX_C_PROGRAM, Part{"serve"});
    ASSERT_EQ(service.awaitOutput("active"), "active") << service.errors();
    ChildProcess asking(KVX_C_PROGRAM, Part{"ask"});
    EXPECT_EQ(asking.wait(), 0) << asking.errors();
    EXPECT_EQ(service.wait(), 0) << service.errors();
}

TEST(CInterface, SaysWhichLineOfTheConfigurationWasNotRead) {
    Home home("host");
    home.writeConfiguration("rendezvous session = { \"daemon\" = \"host\" };\noops\n");
    ChildProcess asking(KVX_C_PROGRAM, Part{"lost"});
    ASSERT_EQ(asking.wait(), 0) << asking.errors();
    EXPECT_TRUE(
        holds(asking.output(), "the address is not of the form tcp:[host:]port or unix:/path; " +
                                   home.file("etc/Calvorine.rvd.cfg") + ":2: parse error\n"));
}

TEST(CInterface, TakesNullHandles) {
    ChildProcess process(KVX_C_PROGRAM, Part{"null"});
    EXPECT_EQ(process.wait(), 0) << process.errors();
}

}  // namespace
}  // namespace kvx::test
