#include "tools/kvx/Changes.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Packets.h"
#include "tools/kvx/OrderedPool.h"

namespace kvx::tool {
namespace {

constexpr std::int64_t kNoon = 1'764'072'000'123;  // milliseconds

// The packets that a sender makes of rows, as the messages that carry them.
class PacketMaker {
  public:
    void add(const char* change, const char* name, long long ports) {
        CVekBaseRecord record;
        if (change != nullptr) {
            record.RRAddOrSetValue("@change", new CVekAtom(change));
            record.RRAddOrSetValue("@table", new CVekAtom("devices"));
        }
        record.RRAddOrSetValue("name", new CVekAtom(name));
        record.RRAddOrSetValue("ports", new CVekAtom(ports));
        transport_.RTAddRecord(&record);
        transport_.RTPreparePayloads(VEK_TRANS_V1);
    }

    std::vector<std::unique_ptr<RvMsg>> packets() {
        transport_.RTCreatePackets(VEK_TRANS_V1, true);
        std::vector<std::unique_ptr<RvMsg>> messages;
        for (const std::string& packet : test::packetsOf(transport_)) {
            messages.push_back(std::make_unique<RvMsg>(0UL));
            messages.back()->append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet.size()),
                                    packet.data());
        }
        return messages;
    }

  private:
    CVekTransport transport_{nullptr};
};

TEST(Changes, AreShownAsTextAndAsJson) {
    PacketMaker maker;
    maker.add("changed", "edge 1", 24);
    maker.add(nullptr, "\x1b[31m\xc2\x9b", 48);
    const auto packets = maker.packets();
    using Lines = std::vector<std::string>;
    const auto lines = [&](const ChangeFormat& format) {
        return changesIn(*packets[0], kNoon, format);
    };
    EXPECT_EQ(lines({}),
              (Lines{"2025-11-25T12:00:00.123Z changed devices name=\"edge 1\" ports=24",
                     "2025-11-25T12:00:00.123Z - - name=\"\\u001b[31m\\u009b\" ports=48"}));
    EXPECT_EQ(lines({"devices", true}),
              (Lines{R"({"time":"2025-11-25T12:00:00.123Z","change":"changed",)"
                     R"("table":"devices","row":{"name":"edge 1","ports":24}})"}));
    EXPECT_EQ(lines({"vendors", false}), Lines{});
}

TEST(Changes, OfAnyPacketOfABatchAreReadWithoutTheOthers) {
    PacketMaker maker;
    for (int i = 0; i < 250; ++i) maker.add("inserted", "x", i);
    const auto packets = maker.packets();
    ASSERT_EQ(packets.size(), 3U);
    const auto last = changesIn(*packets[2], kNoon, {});
    ASSERT_EQ(last.size(), 50U);
    EXPECT_NE(last[0].find("ports=200"), std::string::npos) << last[0];
    EXPECT_EQ(changesIn(*packets[0], kNoon, {}).size(), 100U);
}

TEST(Changes, AreNotFoundInWhatIsNoPacket) {
    kvx::test::ErrorRecorder errors;
    RvMsg message;
    message.append("a", RVMSG_OPAQUE, 3, "abc");
    EXPECT_TRUE(changesIn(message, kNoon, {}).empty());
    EXPECT_TRUE(changesIn(RvDatum(RVMSG_STRING, 1, "x"), kNoon, {}).empty());
}

CVekUpdWork* update(int number) {
    return new CVekUpdWork(new RvDatum(std::to_string(number).c_str(), RVMSG_STRING, 0, ""),
                           nullptr);
}

TEST(OrderedPool, PutsOutInOrderWhatItDecodesInParallel) {
    std::vector<std::string> seen;
    {
        OrderedPool pool(
            4,
            [](CVekUpdWork& work, std::int64_t) {
                std::this_thread::yield();
                return OrderedPool::Lines{work.RUWDatum()->name()};
            },
            [&](const OrderedPool::Lines& lines) {
                seen.insert(seen.end(), lines.begin(), lines.end());
            });
        pool.start();
        for (int i = 0; i < 5000; ++i) pool.RSPAddWorkDetail(update(i));
    }
    for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], std::to_string(i));
    EXPECT_GE(seen.size(), 5000 - OrderedPool::kMost) << "the others were let in and then dropped";
}

TEST(OrderedPool, HoldsBackTheBusWhileItIsFull) {
    std::mutex door;
    door.lock();
    std::atomic<int> added{0};
    OrderedPool pool(
        2,
        [&](CVekUpdWork&, std::int64_t) {
            const std::lock_guard guard(door);
            return OrderedPool::Lines{};
        },
        [](const OrderedPool::Lines&) {});
    pool.start();
    std::thread bus([&] {
        for (int i = 0; i < 1500; ++i, ++added) pool.RSPAddWorkDetail(update(i));
    });
    EXPECT_TRUE(kvx::test::eventually([&] { return added == OrderedPool::kMost; }));
    EXPECT_EQ(added, OrderedPool::kMost);
    door.unlock();
    bus.join();
}

}  // namespace
}  // namespace kvx::tool
