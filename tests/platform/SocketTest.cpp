// Sockets, and sets of them that are waited for.

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

#include "platform/Poll.h"
#include "platform/Socket.h"
#include "tests/support/SocketPair.h"

using namespace kvx::platform;
using kvx::test::SocketPair;

namespace {

std::array<std::byte, 64> buffer;

std::string receiveText(const Socket& socket) {
    const IoResult got = receiveSome(socket.get(), buffer);
    return {reinterpret_cast<const char*>(buffer.data()), got.bytes};
}

}  // namespace

TEST(SocketErrors, AreTranslatedAndUnknownOnesKept) {
    EXPECT_EQ(socketErrorFromErrno(EAGAIN), 10035);
    EXPECT_EQ(socketErrorFromErrno(ENOMEM), 12);
    EXPECT_EQ(socketErrorFromErrno(ELOOP), ELOOP);
}

TEST(Sockets, CarryBytesBothWaysAndEndWithThePeer) {
    SocketPair pair;
    pair.farSends("hello");
    EXPECT_EQ(receiveText(pair.near), "hello");
    EXPECT_EQ(setNonBlocking(pair.near.get(), true), 0);
    EXPECT_EQ(receiveSome(pair.near.get(), buffer).error, socket_error::kWouldBlock);
    EXPECT_EQ(shutdownSending(pair.far.get()), 0);
    EXPECT_EQ(waitSocket(pair.near.get(), kReadable, kForever).ready, unsigned{kReadable});
    const IoResult end = receiveSome(pair.near.get(), buffer);
    EXPECT_EQ(end.bytes, 0U);
    EXPECT_EQ(end.error, 0);
    EXPECT_EQ(localEndpoint(pair.near.get()), peerEndpoint(pair.far.get()));
}

TEST(Sockets, AreToldFromOtherDescriptorsAndNeverReachAStartedProgram) {
    SocketPair pair;
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    EXPECT_TRUE(isSocket(pair.near.get()));
    EXPECT_FALSE(isSocket(pipe[0]));
    EXPECT_FALSE(isSocket(kNoSocket));
    for (const int end : pipe) ::close(end);
    int error = 0;
    const Socket listener = listenTcp({kLoopbackAddress, 0}, error);
    for (const SocketHandle socket : {pair.near.get(), pair.far.get(), listener.get()})
        EXPECT_NE(::fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
    const SocketHandle closed = pair.near.get();
    pair.near.reset();
    EXPECT_FALSE(isSocket(closed));
    EXPECT_EQ(waitSocket(closed, kReadable, kForever).error, socket_error::kNotASocket);
    EXPECT_EQ(setNoDelay(closed, true), socket_error::kBadDescriptor);
}

TEST(Sockets, ConnectingReportsARefusalNonBlockingToo) {
    int error = 0;
    Socket listener = listenTcp({kLoopbackAddress, 0}, error);
    const Endpoint nobody = localEndpoint(listener.get()).value();
    EXPECT_FALSE(listenTcp(nobody, error));
    EXPECT_EQ(error, socket_error::kAddressInUse);
    listener.reset();
    const Socket blocking = createTcpSocket(error);
    EXPECT_EQ(connectSocket(blocking.get(), nobody), socket_error::kRefused);
    const Socket waiting = createTcpSocket(error);
    EXPECT_EQ(setNonBlocking(waiting.get(), true), 0);
    EXPECT_EQ(setNoDelay(waiting.get(), true), 0);
    const int started = connectSocket(waiting.get(), nobody);
    if (started == socket_error::kInProgress) {
        EXPECT_NE(waitSocket(waiting.get(), kReadable | kWritable, 5'000).ready, 0U);
        EXPECT_EQ(pendingError(waiting.get()), socket_error::kRefused);
    } else {
        EXPECT_EQ(started, socket_error::kRefused);
    }
}

TEST(Hosts, AreResolvedByNameAndByAddress) {
    EXPECT_EQ(resolveHost("localhost"), kLoopbackAddress);
    EXPECT_EQ(resolveHost("10.1.2.3"), 0x0A010203U);
    EXPECT_EQ(resolveHost(""), std::nullopt);
    EXPECT_EQ(resolveHost("256.1.2.3.4"), std::nullopt);
    EXPECT_EQ(dottedAddress(0x0A010203), "10.1.2.3");
    EXPECT_FALSE(localHostName().value_or("").empty());
    EXPECT_NE(localHostAddress().value_or(0) >> 24, 127U);
}

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
