#include "platform/Clock.h"

#include "platform/Socket.h"
#include "tests/support/SocketPair.h"

using namespace kvx::platform;

TEST(Clock, FallsBackToTheWallClockForGood) {
    static int reads = 0;
    reads = 0;
    setMonotonicReaderForTests([](Milliseconds& now) {
        now = 5;
        return ++reads != 2;
    });
    EXPECT_EQ(monotonicMs(), 5);
    const Milliseconds before = wallMilliseconds();
    EXPECT_GE(monotonicMs(), before);
    EXPECT_GE(monotonicMs(), before);  // although the reader works again
    EXPECT_EQ(reads, 2);
    setMonotonicReaderForTests(nullptr);
    EXPECT_GE(wallSeconds(), before / 1'000);
}

TEST(Clock, SteppedByHandPassesWithTheWaitsOfTheProgram) {
    const kvx::test::SocketPair pair;
    {
        ManualClock clock(1'000);
        clock.advance(500);
        sleepMs(2'000);
        sleepMs(-5);
        EXPECT_EQ(monotonicMs(), 3'500);
        EXPECT_EQ(waitSocket(pair.near.get(), kReadable, 60'000).ready, 0U);
        EXPECT_EQ(monotonicMs(), 63'500);
        EXPECT_EQ(waitSocket(pair.near.get(), kWritable, 60'000).ready, unsigned{kWritable});
        EXPECT_EQ(monotonicMs(), 63'500);  // ready at once: no time has passed
        clock.setWaits(ManualClock::Waits::Block);
        sleepMs(1);
        EXPECT_EQ(monotonicMs(), 63'500);
    }
    const Milliseconds now = monotonicMs();
    EXPECT_LE(now, monotonicMs());
}
