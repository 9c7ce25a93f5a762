// What a session says to a daemon, and what it makes of daemons that answer otherwise.

#include "platform/Process.h"
#include "rv/error/rvErrors.h"
#include "tests/rv/session/SessionFixture.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/ScriptedDaemon.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {
namespace {

class Handshake : public SessionFixture {
  protected:
    // The headlines of the messages up to the client's goodbye.
    static Texts takeUntilGoodbye(PeerLink& peer) {
        Texts lines;
        for (const ByteVector& message : peer.readToTheEnd()) lines.push_back(headline(message));
        return lines;
    }
    // A daemon whose first connection ends `messages` messages behind the welcome; `announced_` is
    // what comes on the second one.
    ScriptedDaemon losesTheFirstConnectionAfter(
        int messages, std::uint32_t nextAddress = PeerLink::kLocalAddress) {
        return ScriptedDaemon({[messages](PeerLink& peer) {
                                   peer.welcome();
                                   for (int i = 0; i < messages; ++i) peer.readMessage();
                               },
                               [this, nextAddress](PeerLink& peer) {
                                   peer.negotiateV4();
                                   peer.introduce(nextAddress);
                                   announced_ = takeUntilGoodbye(peer);
                               }});
    }

    Texts announced_;
};

TEST_F(Handshake, IntroducesItselfThenAnnouncesItsInboxesAndListens) {
    ByteVector first, second, listenMessage;
    Texts rest;
    ScriptedDaemon daemon([&](PeerLink& peer) {
        peer.greet(4);
        EXPECT_EQ(peer.readGreeting(), (wire::Greeting{0, 4, 0}));
        peer.sendBlock(wire::daemonProposal());
        peer.sendBlock(wire::daemonStep(peer.readBlock()).block);
        first = peer.readMessage();
        peer.send(wire::buildReply(0x0100000A, 77));
        second = peer.readMessage();
        rest.push_back(headline(peer.readMessage()));
        listenMessage = peer.readMessage();
        for (const std::string& line : takeUntilGoodbye(peer)) rest.push_back(line);
    });
    rv_Flavor(flavourId, flavourName, nullptr, 0, 0);
    rv_Session session = open(daemon.text(), "svc", "net");
    const std::string name = rv_SessionName(session);
    EXPECT_EQ(name.substr(0, 9), "0A000001.");
    Listening ordinary, reserved;
    listen(session, ordinary, "A.B");
    listen(session, reserved, "_RV.>");
    EXPECT_EQ(rv_Cancel(session, ordinary.id), 0);
    EXPECT_EQ(rv_Close(session), 0);
    daemon.finish();
    EXPECT_EQ(textOf(first, "session"), std::nullopt);
    EXPECT_EQ(textOf(first, "service"), "svc");
    EXPECT_EQ(textOf(first, "network"), "net");
    EXPECT_EQ(textOf(first, "fname"), flavourName);
    EXPECT_EQ(textOf(second, "session"), name);
    EXPECT_EQ(textOf(second, "control"), "_INBOX." + name + ".1");
    EXPECT_EQ(rest, (Texts{"L:_INBOX." + name + ".>", "L:_RV.>", "C:A.B"}));
    EXPECT_EQ(headline(listenMessage), "L:A.B");
    EXPECT_EQ(textOf(listenMessage, "return"), "_INBOX." + name + ".2");
}

TEST_F(Handshake, ReconnectingUnderAnotherAddressKeepsTheOldInboxesReachable) {
    ScriptedDaemon daemon = losesTheFirstConnectionAfter(2, 0x0200000A);
    rv_Session session = open(daemon.text());
    const std::string oldName = rv_SessionName(session);
    Listening ordinary, inbox;
    createInbox(session, inbox);
    listen(session, ordinary, "A");
    runUntil([&] { return rv_SessionName(session) != oldName; });
    const std::string newName = rv_SessionName(session);
    rv_Close(session);
    daemon.finish();
    EXPECT_EQ(newName.substr(0, 9), "0A000002.");
    EXPECT_EQ(announced_,
              (Texts{"L:A", "L:_INBOX." + newName + ".>", "L:_INBOX." + oldName + ".>"}));
}

TEST_F(Handshake, AListenHookMayCancelRefuseOrCloseWhileTheListensAreAnnounced) {
    static rv_Listener second;
    static int calls;
    const std::pair<rv_Hook, int> hooks[] = {
        {[](rv_Session session, const void*, void*) {
             if (++calls == 1) rv_Cancel(session, second);
             return 0;
         },
         2},
        {[](rv_Session, const void*, void*) { return ++calls; }, 3},
        {[](rv_Session session, const void*, void*) {
             rv_Close(session);
             return ++calls;
         },
         1},
    };
    for (const auto& [hook, expectedCalls] : hooks) {
        calls = 0;
        ScriptedDaemon daemon = losesTheFirstConnectionAfter(3);
        rv_Session session = open(daemon.text());
        Listening listening;
        listen(session, listening, "A");
        rv_Listen(session, &second, "B", Listening::callback(), nullptr);
        rv_AddHook(session, RV_HOOK_LISTEN, hook, nullptr);
        runUntil([&] { return calls > 0; });
        const std::string name = rv_IsOpen(session) ? rv_SessionName(session) : "";
        rv_Close(session);
        daemon.finish();
        EXPECT_EQ(calls, expectedCalls);
        const bool cancels = hook == hooks[0].first;
        EXPECT_EQ(announced_, cancels ? (Texts{"C:B", "L:A", "L:_INBOX." + name + ".>"}) : Texts{});
    }
}

TEST_F(Handshake, AListenerIsNotCalledBeforeItsListenHasReturned) {
    ScriptedDaemon daemon([](PeerLink& peer) { peer.welcome(); });
    rv_Session session = open(daemon.text());
    daemon.finish();
    std::deque<Listening> made;
    int code = 0;
    while (code == 0) {
        Listening& next = made.emplace_back();
        code = rv_Listen(session, &next.id, "_RV.WARN.>", Listening::callback(), &next);
    }
    EXPECT_EQ(code, 22);
    for (const Listening& one : made) EXPECT_EQ(one.heard.size(), &one == &made.back() ? 0U : 1U);
    deliver(session, "_RV.WARN.MINE.X", "later");
    EXPECT_EQ(made.back().texts(), Texts{"later"});
}

TEST_F(Handshake, ADaemonThatOffersVersion3IsSpokenToInVersion3) {
    std::vector<std::uint32_t> wanted;
    const auto greet = [&wanted](PeerLink& peer) {
        peer.greet(3);
        wanted.push_back(peer.readGreeting().version);
    };
    ScriptedDaemon daemon({greet, [&](PeerLink& peer) {
                               greet(peer);
                               peer.sendBlock(peer.readBlock());
                               peer.introduce();
                               takeUntilGoodbye(peer);
                           }});
    rv_Session session = open(daemon.text());
    EXPECT_TRUE(rv_IsConnected(session));
    rv_Close(session);
    daemon.finish();
    EXPECT_EQ(wanted, (std::vector<std::uint32_t>{4, 3}));
}

TEST_F(Handshake, DaemonsThatAnswerOtherwiseAreRefusedWithTheirCode) {
    using Script = ScriptedDaemon::Script;
    const auto answering = [](std::function<wire::Built()> build) -> Script {
        return [build](PeerLink& peer) {
            peer.negotiateV4();
            peer.readMessage();
            peer.send(build());
            peer.readMessage();
        };
    };
    const Script silent = [](PeerLink& peer) {
        peer.negotiateV4();
        peer.readMessage();
    };
    const Script onlyVersion4 = [](PeerLink& peer) {
        peer.greet(4);
        peer.readGreeting();
    };
    const auto code = [](int number) { return std::string(rv_ErrorText(number)); };
    const std::tuple<int, Script, std::string> cases[] = {
        {4, [](PeerLink& peer) { peer.greet(5); }, code(4)},
        {1, onlyVersion4, code(1)},  // version 4 fails where 3 was not offered
        {22, silent, "the connection ended amid the handshake"},
        {16, answering([] { return wire::buildErrorReply(16); }), code(16)},
        {17, answering([] { return wire::buildErrorReply(17); }), code(17)},
        {17, answering([] { return wire::buildErrorReply(0); }), code(17)},  // and no address
        {1, answering([] { return wire::buildInit({}); }), code(1)},
        {27, answering([] { return wire::buildErrorReply(27); }),
         "the daemon does not allow this user or this network address"},
    };
    for (const auto& [number, script, report] : cases) {
        ScriptedDaemon daemon(script);
        EXPECT_EQ(codeOfOpening(daemon.text()), number);
        EXPECT_EQ(rv_ConnectReport(), report);
    }
    for (const char* text :
         {"udp:7500", "7500", "tcp", "TCP:7500", "tcp::7500", "tcp:no-such-host.invalid:7500"})
        EXPECT_EQ(codeOfOpening(text), 18) << text;
    EXPECT_EQ(codeOfOpening("unix:rvd"), 18);
    EXPECT_STREQ(rv_ConnectReport(), "the path of a unix socket begins with /");
    EXPECT_EQ(codeOfOpening("unix:/" + std::string(107, 'x')), 18);
}

TEST_F(Handshake, AnAttemptFailsByAGreetingThatDoesNotBeginWithZeroAndFourArePausedBy2Seconds) {
    ScriptedDaemon daemon({[](PeerLink& peer) { peer.greet(4, 1); },
                           [](PeerLink& peer) {
                               peer.welcome();
                               takeUntilGoodbye(peer);
                           }});
    EXPECT_EQ(codeOfOpening(daemon.text()), 0);
    closeAll();
    daemon.finish();
    platform::ManualClock clock;
    const auto before = clock.now();
    EXPECT_EQ(codeOfOpening(daemon.text()), 22);
    EXPECT_EQ(clock.now() - before, 8'000);
    EXPECT_STREQ(rv_ConnectReport(),
                 "attempts 1 to 4: The attempt to connect was forcefully rejected; "
                 "none was started, since the address names a host");
}

// A session on a clock that stands, whose connections all break; what it does when is noted.
class Reconnecting : public Handshake {
  protected:
    void connectTo(ScriptedDaemon& daemon) {
        session_ = open(daemon.text());
        rv_AddHook(session_, RV_HOOK_DISCONNECT, count<&Reconnecting::losses_>, this);
        rv_AddHook(session_, RV_HOOK_RECONNECT, count<&Reconnecting::returns_>, this);
    }
    template <int Reconnecting::*Counter>
    static int count(rv_Session, const void*, void* closure) {
        auto* const self = static_cast<Reconnecting*>(closure);
        ++(self->*Counter);
        return rvevm_Stop(self->manager_);
    }
    void runTo(const int& counter, int number) {
        while (counter < number) rvevm_MainLoop(manager_);
    }
    // What is due by now happens.
    void settle() {
        rvevm_Id marker = nullptr;
        const auto stop = [](void* manager, void*, int, void*) {
            rvevm_Stop(static_cast<rvevm_Manager>(manager));
        };
        rvevm_AddTimer(manager_, &marker, 0, stop, nullptr);
        rvevm_MainLoop(manager_);
    }

    platform::ManualClock clock_{1'000'000, platform::ManualClock::Waits::Block};
    rv_Session session_ = nullptr;
    int losses_ = 0;
    int returns_ = 0;
};

TEST_F(Reconnecting, AReconnectThatDoesNotLastCountsAsFailed) {
    const auto welcomeAndClose = [](PeerLink& peer) { peer.welcome(); };
    ScriptedDaemon daemon(std::vector<ScriptedDaemon::Script>(4, welcomeAndClose));
    connectTo(daemon);
    runTo(returns_, 1);
    runTo(losses_, 2);
    clock_.advance(249);
    settle();
    EXPECT_EQ(returns_, 1);
    clock_.advance(1);
    runTo(returns_, 2);
    clock_.advance(2'000);
    runTo(losses_, 3);
    runTo(returns_, 3);  // this connection had lasted: at once
}

TEST_F(Reconnecting, ALossInsideAHandshakeIsFollowedByOneReconnectOnly) {
    const auto welcomeAndClose = [](PeerLink& peer) { peer.welcome(); };
    ScriptedDaemon daemon({welcomeAndClose, welcomeAndClose,
                           [this](PeerLink& peer) {
                               peer.welcome();
                               announced_ = takeUntilGoodbye(peer);
                           },
                           welcomeAndClose});
    connectTo(daemon);
    const rv_Hook sendUntilLost = [](rv_Session session, const void*, void*) {
        while (send(session, "A", "x") == 0) {
        }
        return 0;
    };
    rv_AddHook(session_, RV_HOOK_LISTEN, sendUntilLost, nullptr);
    runTo(losses_, 2);
    rv_RemoveHook(session_, RV_HOOK_LISTEN, sendUntilLost, nullptr);
    clock_.advance(15'000);
    runTo(returns_, 1);
    clock_.advance(15'000);
    settle();
    EXPECT_EQ(returns_, 1);
    EXPECT_EQ(losses_, 2);
    closeAll();
}

TEST_F(Handshake, ADashMeansNoDaemonAtAll) {
    rv_Session session = open("-");
    Listening listening;
    EXPECT_STREQ(rv_SessionName(session), "");
    EXPECT_EQ(rv_Listen(session, &listening.id, "A", Listening::callback(), &listening), 21);
    EXPECT_EQ(rv_CreateInbox(session, &listening.id, nullptr, 0, Listening::callback(), &listening),
              21);
    listen(session, listening, "_RV.>");
    EXPECT_EQ(deliver(session, "_RV.WARN.MINE.X", "local"), 0);
    EXPECT_EQ(listening.texts(), Texts{"local"});
    EXPECT_EQ(send(session, "A", "x"), 22);
    EXPECT_EQ(rv_Flush(session, 0), 22);
}

TEST_F(Handshake, ALocalDaemonThatIsNotThereIsStarted) {
    const TemporaryDirectory home;
    const std::string pidFile = home.file("pid");
    std::filesystem::create_directory(home.file("bin"));
    const std::string program = home.file("bin/rvd");
    std::ofstream(program) << "#!/bin/sh\necho $$ > " << pidFile << "\necho \"$@\" > " << pidFile
                           << ".args\nexec " KVX_RVD_PROGRAM " \"$@\"\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    const EnvironmentVariable vekHome("VEK_HOME", home.path());
    const EnvironmentVariable stateHome("XDG_STATE_HOME", home.path());
    const auto freePort = ScriptedDaemon(std::vector<ScriptedDaemon::Script>{}).port();
    const std::string text = "tcp:" + std::to_string(freePort);
    EXPECT_EQ(codeOfOpening(text), 0);
    unsigned long pid = 0;
    std::ifstream(pidFile) >> pid;
    std::string arguments;
    std::getline(std::ifstream(pidFile + ".args"), arguments);
    if (pid != 0) platform::sendSignal(pid, 15);
    EXPECT_EQ(arguments, "-listen " + text);
}

}  // namespace
}  // namespace kvx::test
