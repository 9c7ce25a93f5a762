// A daemon that dies and comes back costs the requests under way and nothing else.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

constexpr const char* kDevices = "name,ports\ncore-1,48\n";

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
    bus.daemon().restart();
    loading = false;
    load.join();

    EXPECT_TRUE(eventually(answered));
    EXPECT_TRUE(eventually([&] { return heard("after"); }));
    EXPECT_TRUE(model->isRunning());
    const std::string said = listener->output();
    const std::string lost = "ADV_NAME=\"RVD.DISCONNECTED\"";
    EXPECT_NE(said.find(lost), std::string::npos) << said;
    EXPECT_EQ(said.find(lost), said.rfind(lost)) << said;
}

}  // namespace
}  // namespace kvx::test
