// The daemon in a thread of this process, where any allocation may fail.

#include <signal.h>
#include <sys/wait.h>

#include "rv/wire/Buffer.h"
#include "rvd/Server.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingNew.h"
#include "tests/support/Ledger.h"
#include "tests/support/RawClient.h"

namespace kvx::test {
namespace {

const bool kBuffersFailToo = [] {
    wire::bufferMemory().resize = [](void* block, std::size_t size) {
        return nextFails() ? nullptr : std::realloc(block, size);
    };
    return true;
}();

// Serves on a free port until SIGTERM; of its thread's allocations `failures` fail after `news`.
class ServedHere {
  public:
    ServedHere(long news, long failures) {
        rvd::Options options;
        options.queueLimit = 2'000;
        options.stepsAtOnce = 1;
        options.program.path = "/bin/false";
        options.program.arguments = {"false"};
        server_ = std::make_unique<rvd::Server>(options, platform::Log());
        if (!server_->start()) throw std::runtime_error("cannot listen");
        const std::string& text = server_->address();
        port_ = static_cast<std::uint16_t>(std::stoi(text.substr(text.rfind(':') + 1)));
        thread_ = std::thread([this, news, failures] {
            newsBeforeFailure = news;
            newsToFail = failures;
            server_->run();
            hasFailed_ = newsBeforeFailure <= 0;
            newsBeforeFailure = -1;
            server_.reset();  // which blocks the signals of this thread
        });
    }
    ~ServedHere() {
        if (thread_.joinable()) stop();
    }
    /// By a program that ends without a word.
    void replace() { pthread_kill(thread_.native_handle(), SIGUSR2); }
    // True when an allocation has failed.
    bool stop() {
        pthread_kill(thread_.native_handle(), SIGTERM);
        thread_.join();
        return hasFailed_;
    }
    [[nodiscard]] std::uint16_t port() const { return port_; }

  private:
    std::unique_ptr<rvd::Server> server_;
    std::thread thread_;
    std::uint16_t port_ = 0;
    bool hasFailed_ = false;
};

// Everything sent so far has been taken, or the connection has ended.
void sync(RawClient& client) {
    client.send(wire::buildInit({"tester", nullptr, "", "", nullptr, {}}));
    while (headline(client.readMessage()).substr(0, 1) == "D") {
    }
}

// What a daemon does in a day; wherever the daemon ends a connection it ends early.
void playScript(std::uint16_t port) try {
    RawClient slow = RawClient::nameless(port, 4096);
    RawClient sender = RawClient::session(port, "", "", wire::kProtocolV3);
    slow.listen("A.*.A_LONGER_ELEMENT_THAN_FITS");
    slow.listen("B");
    sender.listen("B");
    sync(slow);
    for (int i = 0; i < 40; ++i) sender.publish("B", std::string(60, 'x'));
    sender.publish("B", std::string(1'500, 'x'));
    sender.publish("A.B.A_LONGER_ELEMENT_THAN_FITS", "x");
    const ByteVector giant = dataMessage("B", std::string(700'000, 'x'));
    sender.send(giant);
    sync(sender);
    sync(slow);
    RawClient follower = RawClient::session(port);
    follower.listen("_RVD.INTEREST");
    follower.listen("B");
    sync(follower);
    for (int i = 0; i < 70; ++i) sender.listen(std::to_string(i) + ".A_LONGER_ELEMENT.*");
    sender.publish("B", "x");
    sync(sender);
    sync(follower);
    slow.cancel("B");
    slow.send(wire::kCloseBlock);
    slow.readToTheEnd();
} catch (const std::runtime_error&) {
    return;
}

class NoMemory : public testing::TestWithParam<long> {};
INSTANTIATE_TEST_SUITE_P(Failures, NoMemory, testing::Values(1, 4));

TEST_P(NoMemory, EndsConnectionsAndNeverTheDaemonAtAnyAllocation) {
    bool hasFailed = true;
    long news = 0;
    for (; hasFailed; ++news) {
        SCOPED_TRACE(news);
        testing::internal::CaptureStderr();
        {
            ServedHere daemon(news, GetParam());
            if (GetParam() == 1) daemon.replace();
            playScript(daemon.port());
            EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0; })) << "a child";
            hasFailed = daemon.stop();
        }
        const std::string log = testing::internal::GetCapturedStderr();
        ASSERT_TRUE(countersIn(log).empty() || brokenLaw(log).empty()) << log;
    }
    EXPECT_GT(news, 100);
}

}  // namespace
}  // namespace kvx::test
