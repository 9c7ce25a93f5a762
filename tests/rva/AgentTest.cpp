// The agent as a process of its own, against a real daemon and a real engine.

#include <sys/ptrace.h>
#include <sys/wait.h>

#include "mom/mom.h"
#include "platform/Socket.h"
#include "tests/rva/AgentFixture.h"
#include "tests/support/Nets.h"
#include "tests/support/Supervisor.h"

namespace kvx::test {
namespace {

using Words = std::vector<std::string>;

struct AgentTest : AgentFixture {
    static int freePort() {
        int error = 0;
        const auto socket = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        return platform::localEndpoint(socket.get())->port;
    }
};

TEST_F(AgentTest, IsStartedAndStoppedByAService) {
    Home home(bus_.daemonText());
    const int port = freePort();
    std::filesystem::create_symlink(KVX_BIN_DIR "/rva", home.file("bin/rva"));
    home.writeConfiguration("rendezvous session = { 'daemon' = '" + bus_.daemonText() +
                            "', 'service' = 'svc', 'rva' = '" + std::to_string(port) + "' };");
    CVekClient client(2000, "NET1");
    CVekEngine engine(1, "grp", "NET1", SERV_UNKNOWN);
    CVekEnv env;
    client.RRNStartAgent();
    ASSERT_TRUE(client.m_agentStarted);
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 200; }));

    engine.REStartHeartBeat("Model", "NET1", &env);
    ASSERT_TRUE(runUntil(
        engine, [&] { return get(port, "/services.json").body.find("Model") != std::string::npos; },
        &CVekEngine::REDoIt));
    const std::string services = get(port, "/services.json").body;
    EXPECT_TRUE(holds(services, R"({"service":"Model","domain":"NET1","host":")" +
                                    std::string(env.RELocalHost()) + R"(","pid":)" +
                                    std::to_string(getpid()) + R"(,"role":"backup")"));
    const auto metrics = get(port, "/metrics");
    EXPECT_TRUE(holds(metrics.body, "\nrva_heard_beats_total 1\n"));
    EXPECT_TRUE(holds(metrics.body, "\nrva_known_services 1\n"));
    EXPECT_EQ(metrics.get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");

    client.RRNStopAgent();
    EXPECT_FALSE(client.m_agentStarted);
    EXPECT_EQ(get(port, "/healthz").status, -1);
}

TEST_F(AgentTest, IsNotReadyWhileTheDaemonIsGone) {
    const int port = start();
    EXPECT_EQ(get(port, "/readyz").status, 200);
    for (const char* page : {"/healthz", "/readyz", "/services.json", "/metrics"}) {
        EXPECT_TRUE(holds(get(port, "/").body, page));
        EXPECT_EQ(get(port, page).status, 200) << page;
    }
    bus_.daemon().kill();
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 503; }));
    EXPECT_EQ(get(port, "/healthz").status, 200);
    EXPECT_TRUE(holds(get(port, "/metrics").body, "\nrva_lost_sessions_total 1\n"));
    EXPECT_NE(agent_->awaitError("the bus daemon is lost"), "");
    bus_.daemon().restart();
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 200; }));
    EXPECT_FALSE(holds(get(port, "/metrics").body, "\nrva_bus_warnings_total 0\n"));
    agent_->kill(SIGTERM);
    EXPECT_EQ(agent_->wait(), 0);
}

// Stops the main thread of a process, and no other one.
class StoppedThread {
  public:
    explicit StoppedThread(pid_t pid) : pid_(pid) {
        if (ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0 ||
            ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) != 0 ||
            waitpid(pid, nullptr, __WALL) != pid) {
            throw std::runtime_error("the thread cannot be stopped");
        }
    }
    ~StoppedThread() { ptrace(PTRACE_DETACH, pid_, nullptr, nullptr); }
    StoppedThread(const StoppedThread&) = delete;
    StoppedThread& operator=(const StoppedThread&) = delete;

  private:
    const pid_t pid_;
};

TEST_F(AgentTest, TellsItsSupervisorOfItselfAndServesAtThePassedSocket) {
    int error = 0;
    const auto socket = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
    const int port = platform::localEndpoint(socket.get())->port;
    Supervisor supervisor;
    agent_ = bus_.startShell(supervisor.command("rva -listen 0", {socket.get()}));
    EXPECT_EQ(supervisor.hearUntil("READY=1").back(), "READY=1") << agent_->errors();
    EXPECT_EQ(get(port, "/readyz").status, 200);
    {
        const StoppedThread hung(agent_->pid());
        EXPECT_TRUE(eventually([&] { return supervisor.hear(500).text.empty(); }));
    }
    EXPECT_EQ(supervisor.hear().text, "WATCHDOG=1");
    bus_.daemon().kill();
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 503; }));
    const StoppedThread reconnecting(agent_->pid());
    for (int i = 0; i < 40; ++i) EXPECT_EQ(supervisor.hear(10'000).text, "WATCHDOG=1");
}

TEST_F(AgentTest, EndsWithAReasonWhereItCannotServe) {
    const int port = start();
    const std::string taken = std::to_string(port);
    struct Case {
        Words words;
        int status;
        const char* reason;
    };
    for (const Case& one : std::vector<Case>{
             {{"-listen", taken}, 1, "is the port taken?"},
             {{"-listen", "0", "-daemon", "udp:1"}, 1, "no session with the bus daemon"},
             {{"-flavor", "54"}, 2, "flavour '54'"},
             {{"-listen", "tcp:0.0.0.0:0"}, 2, "it needs -token-file"},
             {{"-listen", "0", "-token-file", bus_.file("short", "abc\n")}, 2, "no token of 16"},
             {{"-interval", "3601"}, 2, "'3601' is no number of seconds"},
             {{"-token-file", ""}, 2, "--token-file: "},
             {{"-nonsense"}, 2, "not expected: -nonsense"}}) {
        const Ended ended = bus_.run("rva", one.words);
        EXPECT_EQ(ended.status, one.status) << ended.errors;
        EXPECT_TRUE(holds(ended.errors, one.reason));
        EXPECT_EQ(ended.output, "");
    }
    Supervisor supervisor;
    int error = 0;
    const auto open = platform::listenTcp({0, 0}, error);
    const Ended exposed = bus_.shell(supervisor.command("rva -listen 0", {open.get()}));
    EXPECT_EQ(exposed.status, 2);
    EXPECT_TRUE(holds(exposed.errors, "it needs -token-file"));
    const Ended unheard = bus_.shell("rva -listen 0 >/dev/full");
    EXPECT_EQ(unheard.status, 1);
    EXPECT_TRUE(holds(unheard.errors, "rva: standard output: "));
    EXPECT_EQ(bus_.run("rva", {"-help"}).status, 0);
    EXPECT_EQ(bus_.run("rva", {"-version"}).output.rfind("rva ", 0), 0U);
}

}  // namespace
}  // namespace kvx::test
