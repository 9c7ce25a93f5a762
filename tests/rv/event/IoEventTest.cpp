#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "rv/event/EventManagerExtras.h"
#include "rv/event/IoTable.h"
#include "tests/rv/event/LoopFixture.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

using event::IoTable;
using platform::ManualClock;
using platform::Socket;
namespace socket_error = platform::socket_error;

class IoEvent : public LoopFixture {
  protected:
    int tryAdd(unsigned socket, int condition, rvevm_Callback callback = ignore) {
        rvevm_Id id = nullptr;
        return rvevm_AddIO(manager, &id, socket, static_cast<rvevm_IoEventType>(condition),
                           callback, nullptr);
    }
    static unsigned number(const Socket& socket) { return static_cast<unsigned>(socket.get()); }

    ManualClock clock;
    SocketPair pair;
};

// Another descriptor of the same socket, at `lowest` or above.
Socket duplicate(const Socket& socket, int lowest) {
    return Socket(::fcntl(socket.get(), F_DUPFD_CLOEXEC, lowest));
}

bool allowDescriptors(rlim_t count) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min(count, limit.rlim_max));
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

TEST_F(IoEvent, RefusesBadArgumentsInTheirOrder) {
    const unsigned near = number(pair.near);
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    EXPECT_EQ(rvevm_AddIO(manager, nullptr, near, RVEVM_READ, nullptr, nullptr), 2);
    EXPECT_EQ(tryAdd(near, 0, nullptr), 5);
    EXPECT_EQ(tryAdd(static_cast<unsigned>(pipe[0]), RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(0xFFFFFFFFU, RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(static_cast<unsigned>(pipe[0]), 8), 3);
    for (const int condition : {0, 3, 8, -1}) EXPECT_EQ(tryAdd(near, condition), 4);
    EXPECT_EQ(tryAdd(near, RVEVM_READ), 0);
    EXPECT_EQ(tryAdd(near, RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(near, RVEVM_WRITE), 0);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST_F(IoEvent, CallsReadableThenWritableThenExceptionEachByAscendingSocket) {
    const SocketPair other;
    pair.farSends("x");
    other.farSends("x");
    ASSERT_EQ(::send(other.far.get(), "!", 1, MSG_OOB), 1);
    ASSERT_EQ(platform::waitSocket(other.near.get(), platform::kException, -1).ready,
              unsigned{platform::kException});
    ASSERT_LT(pair.near.get(), other.near.get());
    addIo(other.near.get(), RVEVM_EXCEPTION, "e", [&] { stop(); });
    addIo(other.near.get(), RVEVM_WRITE, "w");
    addIo(other.near.get(), RVEVM_READ, "2");
    addIo(pair.near.get(), RVEVM_READ, "1");
    EXPECT_EQ(loop(), "12we");
}

TEST_F(IoEvent, WaitsForTheTimersUntilASocketIsReadyOrItsPeerIsGone) {
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    addTimer(700, "t", [&] { pair.far.reset(); });
    const auto start = clock.now();
    EXPECT_EQ(loop(), "tr");
    EXPECT_EQ(clock.now() - start, 700);
}

TEST_F(IoEvent, DoesNotCallAnEntryThatWasRemovedWhileItWaited) {
    SocketPair other;
    pair.farSends("x");
    other.farSends("x");
    rvevm_Id second = nullptr;
    rvevm_Id self = nullptr;
    self = addIo(pair.near.get(), RVEVM_READ, "1", [&] {
        EXPECT_EQ(rvevm_RemoveIO(manager, self), 0);
        EXPECT_EQ(rvevm_RemoveIO(manager, second), 0);
        // Another entry takes over the number of the socket that was found ready.
        addIo(other.near.get(), RVEVM_READ, "new", [&] { stop(); });
    });
    second = addIo(other.near.get(), RVEVM_READ, "2");
    addIo(other.near.get(), RVEVM_WRITE, "w");
    EXPECT_EQ(loop(), "1wnew");
}

TEST_F(IoEvent, StopsCallingWhenACallbackStopsTheLoopAndGoesOnInTheNext) {
    pair.farSends("x");
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    addIo(pair.near.get(), RVEVM_WRITE, "w", [&] { stop(); });
    EXPECT_EQ(loop(), "r");
    EXPECT_EQ(loop(), "r");
}

TEST_F(IoEvent, MadeReadyIsCalledOnceInTheNextStepWithoutAWait) {
    rvevm_Id reader = nullptr;
    int calls = 0;
    reader = addIo(pair.near.get(), RVEVM_READ, "r", [&] {
        if (++calls == 3) return;
        EXPECT_EQ(event::makeReady(manager, reader), 0);
    });
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    const auto start = clock.now();
    addTimer(1, "t", [&] { EXPECT_EQ(clock.now() - start, 1); });
    EXPECT_EQ(loopFor(500), "rrrt");
    EXPECT_EQ(event::makeReady(manager, nullptr), 2);
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    EXPECT_EQ(rvevm_RemoveIO(manager, reader), 0);
    EXPECT_EQ(loopFor(500), "");  // what is left over dies with its entry
}

TEST_F(IoEvent, MadeReadyStaysSoWhenTheLoopStopsBeforeItsTurn) {
    const SocketPair silent;
    pair.farSends("x");
    ASSERT_LT(pair.near.get(), silent.near.get());
    rvevm_Id first = nullptr;
    first = addIo(pair.near.get(), RVEVM_READ, "1", [&] {
        EXPECT_EQ(rvevm_RemoveIO(manager, first), 0);
        stop();
    });
    rvevm_Id second = addIo(silent.near.get(), RVEVM_READ, "2");
    EXPECT_EQ(event::makeReady(manager, second), 0);
    EXPECT_EQ(loop(), "1");
    EXPECT_EQ(loopFor(500), "2");
}

TEST_F(IoEvent, WatchesAThousandSocketsWhateverTheirNumbers) {
    ASSERT_TRUE(allowDescriptors(2'100)) << "needs 2,100 descriptors";
    std::vector<Socket> sockets;
    std::string everyOne;
    for (int i = 0; i < 1'024; ++i) {
        sockets.push_back(duplicate(pair.near, 1'000));
        ASSERT_TRUE(sockets.back());
        addIo(sockets.back().get(), RVEVM_READ, std::to_string(i) + " ",
              [&, i] { i == 1'023 ? stop() : void(); });
        everyOne += std::to_string(i) + " ";
    }
    sockets.push_back(duplicate(pair.near, 1'000));
    EXPECT_EQ(tryAdd(number(sockets.back()), RVEVM_READ), 8);
    EXPECT_EQ(tryAdd(number(sockets.back()), RVEVM_EXCEPTION), 0);
    pair.farSends("x");
    EXPECT_EQ(loop(), everyOne);
}

TEST_F(IoEvent, ReportsAClosedSocketAndServesTheOthers) {
    SocketPair other;
    pair.farSends("x");
    addIo(other.near.get(), RVEVM_READ, "closed");
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    other.near.reset();
    testing::internal::CaptureStderr();
    EXPECT_EQ(loop(), "r");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "select error: 10038 (The descriptor is not a socket)\n");
}

TEST_F(IoEvent, LetsEveryReaderDiscoverThatTheNetworkIsDown) {
    platform::WakeUp wakeUp;
    IoTable table(wakeUp);
    rvevm_Id reader = nullptr;
    rvevm_Id writer = nullptr;
    ASSERT_EQ(table.add(&reader, number(pair.near), RVEVM_READ, ignore, nullptr), 0);
    ASSERT_EQ(table.add(&writer, number(pair.near), RVEVM_WRITE, ignore, nullptr), 0);
    testing::internal::CaptureStderr();
    table.collectReady(socket_error::kNetworkDown);
    IoTable::Ready ready{};
    ASSERT_TRUE(table.nextReady(ready));
    EXPECT_EQ(ready.id, reader);
    EXPECT_FALSE(table.nextReady(ready));
    table.clearReady();
    table.collectReady(socket_error::kInterrupted);
    EXPECT_FALSE(table.nextReady(ready));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace kvx::test
