// The real process, spoken to over real sockets.

#include "rv/message/WireFormat.h"
#include "rv/wire/Negotiation.h"
#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
#include "tests/support/Texts.h"

namespace kvx::test {
namespace {

class RunningDaemon : public testing::Test {
  protected:
    RawClient session(const char* service = "", const char* network = "") {
        return RawClient::session(daemon.port(), service, network);
    }
    Daemon daemon;
};

TEST_F(RunningDaemon, CarriesMessagesBetweenSessionsOfEitherProtocolVersion) {
    RawClient oldOne = RawClient::session(daemon.port(), "", "", wire::kProtocolV3);
    RawClient newOne = session();
    oldOne.listen("A.*");
    newOne.listen("B.>");
    oldOne.settle();
    newOne.settle();
    newOne.publish("A.B", "to the old one", "_INBOX.x.1");
    oldOne.publish("B.C.D", "to the new one");
    const Received first = oldOne.expectNext();
    EXPECT_EQ(first.text, "to the old one");
    EXPECT_EQ(first.reply, "_INBOX.x.1");
    EXPECT_EQ(newOne.expectText(), "to the new one");
}

TEST_F(RunningDaemon, OutlivesClientsThatSendNonsenseOrVanish) {
    RawClient(daemon.port()).send(std::vector<std::uint8_t>(5000, 0xFF));
    RawClient half = session();
    const auto message = dataMessage("A", std::string(1000, 'x'));
    half.send(wire::Bytes(message).first(500));
    half.close();
    RawClient broken = session();
    broken.send(std::vector<std::uint8_t>{0, 0, 0, 3, 0x99, 0x55, 0xEE, 0xAA});
    EXPECT_FALSE(broken.expectClosed());
    RawClient good = session();
    good.settle();
}

TEST_F(RunningDaemon, MakesRoomAtItsLastDescriptorsAndTurnsNobodyAwayWhoHasAnnouncedItself) {
    Daemon crowded({}, {}, "ulimit -n 40");
    std::vector<RawClient> sessions;
    sessions.push_back(RawClient::session(crowded.port()));
    std::vector<RawClient> strangers;
    for (int i = 0; i < 60; ++i) strangers.emplace_back(crowded.port());
    EXPECT_FALSE(crowded.awaitLog("descriptors").empty());
    EXPECT_FALSE(strangers.front().expectClosed()) << "the oldest makes room";
    try {
        while (sessions.size() < 60) sessions.push_back(RawClient::session(crowded.port()));
    } catch (const std::runtime_error&) {
        EXPECT_GT(sessions.size(), 10U) << "all have announced themselves: this one is turned away";
    }
    EXPECT_LT(sessions.size(), 40U);
    for (RawClient& session : sessions) session.settle();
    sessions.clear();
    strangers.clear();
    crowded.askToStop();
    EXPECT_FALSE(crowded.awaitLog(" connections.refused=").empty());
}

TEST_F(RunningDaemon, StopsWithACloseNoticeBehindWhatWaitsHoweverOftenItIsToldTo) {
    RawClient client = session();
    RawClient handshaking(daemon.port());
    client.listen("A");
    client.publish("A", std::string(200'000, 'x'));
    client.settle();
    for (int i = 0; i < 3; ++i) daemon.askToStop();
    EXPECT_EQ(client.expectText().size(), 200'000U);
    EXPECT_TRUE(client.expectClosed());
    client.close();
    handshaking.close();
    siginfo_t ended{};
    do {
        daemon.askToStop();
        waitid(P_PID, static_cast<id_t>(daemon.pid()), &ended, WEXITED | WNOHANG | WNOWAIT);
    } while (ended.si_pid == 0);
    EXPECT_EQ(daemon.waitForEnd(), 0);
}

TEST_F(RunningDaemon, StopsAlthoughAClientNeitherReadsNorCloses) {
    RawClient deaf = RawClient::nameless(daemon.port(), 8192);
    deaf.listen("A");
    deaf.settle();
    RawClient sender = session();
    for (int i = 0; i < 200; ++i) sender.publish("A", std::string(100'000, 'x'));
    sender.settle();
    daemon.askToStop();
    EXPECT_EQ(daemon.waitForEnd(), 0);
}

TEST(DaemonProgram, RefusesInvalidCommandLinesAndATakenPort) {
    const Daemon first;
    const std::string strange = "tcp:\x1b[31m" + std::string(100'000, 'x') + ":1";
    const std::string taken = "tcp:" + std::to_string(first.port());
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"-listen", "udp:7500"},
                                                                       {"-queue-limit", "many"},
                                                                       {"-memory", "0"},
                                                                       {"-memory", ""},
                                                                       {"--no-such-option"},
                                                                       {strange},
                                                                       {"-allow", "10.0.0.0/40"},
                                                                       {"-allow-user", "0"},
                                                                       {"-listen", "unix:rvd"},
                                                                       {"-listen", strange},
                                                                       {"-listen"},
                                                                       {"-listen", taken}}) {
        const bool isTaken = arguments.back() == taken;
        ChildProcess program(KVX_RVD_PROGRAM, arguments);
        EXPECT_EQ(program.wait(), isTaken ? 1 : 2) << arguments[0];
        EXPECT_TRUE(holds(program.errors(), isTaken ? "address already in use" : "\n"))
            << arguments[0];
        EXPECT_EQ(program.errors().find('\x1b'), std::string::npos) << "on a terminal";
        EXPECT_LT(program.errors().size(), 700U);
        EXPECT_EQ(program.output(), "");
    }
    EXPECT_EQ(ChildProcess(KVX_RVD_PROGRAM, {"--version"}).wait(), 0);
    ChildProcess silent("/bin/sh", {"-c", "exec " KVX_RVD_PROGRAM " -listen tcp:0 <&- >&-"});
    EXPECT_NE(silent.awaitError("ERROR standard output: "), "") << "it serves all the same";
    silent.kill(SIGTERM);
    EXPECT_EQ(silent.wait(), 0) << silent.errors();
}

TEST(DaemonProgram, FailsWhenItCannotPrintWhatItWasAskedFor) {
    for (const std::string command : {"--help", "--version", "--counters"}) {
        for (const auto& [redirection, reason] :
             {std::pair(" >/dev/full", "No space left"), {" >&-", "Bad file descriptor"}}) {
            ChildProcess program("/bin/sh", {"-c", KVX_RVD_PROGRAM " " + command + redirection});
            EXPECT_EQ(program.wait(), 1) << command << redirection;
            EXPECT_TRUE(holds(program.errors(), std::string("rvd: standard output: ") + reason));
        }
    }
}

TEST(SlowReader, IsToldExactlyWhatItLostAndHoldsUpNobody) {
    constexpr int kMessages = 4000;
    const Daemon daemon{{"-queue-limit", "1M"}};
    RawClient slow = RawClient::nameless(daemon.port(), 8192);
    RawClient sender = RawClient::session(daemon.port());
    RawClient witness = RawClient::session(daemon.port());
    for (RawClient* client : {&slow, &witness}) {
        client->listen("FLOOD.>");
        client->settle();
    }
    const std::string padding(4000, '.');
    for (int i = 0; i < kMessages; ++i) {
        sender.publish("FLOOD." + std::to_string(i % 7), std::to_string(i) + padding);
        ASSERT_EQ(witness.expectText(), std::to_string(i) + padding);
    }
    sender.publish("FLOOD.END", "end");
    int next = 0;
    std::uint64_t lost = 0;
    std::uint64_t bytes = 0;
    for (Received heard = slow.expectNext(); heard.text != "end"; heard = slow.expectNext()) {
        const auto loss = lossIn(heard);
        if (!loss) {
            ASSERT_EQ(std::stoi(heard.text), next++);
            continue;
        }
        next += static_cast<int>(loss->messages);
        lost += loss->messages;
        bytes += loss->bytes;
        EXPECT_EQ(loss->cause, "slow reader");
        const auto data = kvx::findField(heard.bytes, "data");
        EXPECT_EQ(kvx::findField(data->bytes(), "ADV_NAME")->text(), "DATALOSS");
    }
    EXPECT_GT(lost, 0U);
    EXPECT_EQ(next, kMessages);
    EXPECT_GT(bytes, lost * padding.size());
}

}  // namespace
}  // namespace kvx::test
