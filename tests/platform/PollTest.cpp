#include "platform/Poll.h"

#include "tests/support/SocketPair.h"

using namespace kvx::platform;
using kvx::test::SocketPair;

namespace {

unsigned readiness(const PollSet& set, const Socket& socket) {
    for (std::size_t i = 0; i < set.size(); ++i) {
        if (set.slot(i).socket == socket.get()) return set.slot(i).ready;
    }
    return 0;
}

}  // namespace

TEST(PollSets, FindWhatIsWatchedAndNothingElse) {
    const SocketPair first;
    const SocketPair second;
    PollSet set;
    ASSERT_TRUE(set.add(second.near.get(), kReadable));
    ASSERT_TRUE(set.add(first.near.get(), kReadable));
    EXPECT_EQ(set.wait(0), 0);
    EXPECT_EQ(set.readyCount(), 0U);
    second.farSends("x");
    ASSERT_TRUE(set.add(second.near.get(), kWritable));
    EXPECT_EQ(set.wait(kForever), 0);
    EXPECT_EQ(set.readyCount(), 1U);
    EXPECT_LT(set.slot(0).socket, set.slot(1).socket);
    EXPECT_EQ(readiness(set, second.near), unsigned{kReadable | kWritable});
    EXPECT_EQ(readiness(set, first.near), 0U);
    set.remove(second.near.get(), kReadable);
    EXPECT_EQ(set.wait(kForever), 0);
    EXPECT_EQ(readiness(set, second.near), unsigned{kWritable});
    set.remove(second.near.get(), kWritable);
    set.remove(second.near.get(), kWritable);
    EXPECT_EQ(set.size(), 1U);
}

TEST(PollSets, AreWokenFromAnotherThreadAndForgetIt) {
    WakeUp wakeUp;
    ASSERT_TRUE(wakeUp.valid());
    PollSet set(&wakeUp);
    std::thread other([&] { wakeUp.notify(); });
    EXPECT_EQ(set.wait(kForever), 0);
    other.join();
    EXPECT_EQ(set.readyCount(), 0U);
    ManualClock clock(0);
    EXPECT_EQ(set.wait(10), 0);
    EXPECT_EQ(clock.now(), 10);  // the notification was used up: this wait ran its time
}

TEST(PollSets, TellOfAHangUpWhoeverWatches) {
    SocketPair pair;
    PollSet set;
    ASSERT_TRUE(set.add(pair.near.get(), kException));
    EXPECT_EQ(set.wait(0), 0);
    EXPECT_EQ(set.readyCount(), 0U);
    shutdownSending(pair.near.get());
    pair.far.reset();
    EXPECT_EQ(set.wait(kForever), 0);
    EXPECT_EQ(readiness(set, pair.near), unsigned{kException});
}
