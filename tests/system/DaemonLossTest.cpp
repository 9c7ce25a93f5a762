// A daemon that dies and comes back costs the requests under way and nothing else.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

constexpr const char* kDevices = "name,ports\ncore-1,48\n";

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t found = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
    return found;
}

TEST(DaemonLoss, CostsTheRequestsInFlightAndNothingElse) {
    Installation bus;
    const auto model = bus.startModel(bus.file("devices.csv", kDevices));
    const auto listener = bus.start("kvx", {"listen", "NEWS", "_RV.>"});
    const auto answered = [&] {
        return bus.kvx({"query", "Model", "select * from devices", "--timeout", "0.5"}).status == 0;
    };
    const auto heard = [&](const char* word) {
        bus.kvx({"send", "NEWS", std::string("word=") + word});
        return listener->output().find(word) != std::string::npos;
    };
    ASSERT_TRUE(eventually([&] { return heard("before"); }));
    ASSERT_TRUE(answered());

    std::atomic<bool> loading{true};
    std::thread load([&] {
        while (loading) answered();
    });
    bus.daemon().kill(SIGKILL);
    bus.daemon().wait();
    bus.restartDaemon();
    loading = false;
    load.join();

    EXPECT_TRUE(eventually(answered));
    EXPECT_TRUE(eventually([&] { return heard("after"); }));
    EXPECT_TRUE(model->isRunning());
    EXPECT_EQ(count(listener->output(), "ADV_NAME=\"RVD.DISCONNECTED\""), 1U) << listener->output();
}

}  // namespace
}  // namespace kvx::test
