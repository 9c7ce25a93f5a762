// What a session says to a daemon, and what it makes of daemons that answer otherwise.

#include <deque>
#include <filesystem>
#include <fstream>

#include "platform/Process.h"
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

// Cancels `*closure` when it sees the first listen message.
int cancelOther(rv_Session session, const void* /*message*/, void* closure) {
    auto& other = *static_cast<rv_Listener*>(closure);
    if (other != nullptr) rv_Cancel(session, std::exchange(other, nullptr));
    return 0;
}

int refuse(rv_Session /*session*/, const void* /*message*/, void* closure) {
    ++*static_cast<int*>(closure);
    return 1;
}

TEST_F(Handshake, AListenHookMayCancelAListenThatIsStillToBeAnnounced) {
    ScriptedDaemon daemon = losesTheFirstConnectionAfter(3);
    rv_Session session = open(daemon.text());
    Listening first, second;
    listen(session, first, "A");
    listen(session, second, "B");
    rv_AddHook(session, RV_HOOK_LISTEN, cancelOther, &second.id);
    runUntil([&] { return second.id == nullptr && rv_IsConnected(session); });
    const std::string name = rv_SessionName(session);
    rv_Close(session);
    daemon.finish();
    EXPECT_EQ(announced_, (Texts{"C:B", "L:A", "L:_INBOX." + name + ".>"}));
}

TEST_F(Handshake, AListenHookMayRefuseEveryListenMessageTheInboxesIncluded) {
    int refused = 0;
    ScriptedDaemon daemon = losesTheFirstConnectionAfter(2);
    rv_Session session = open(daemon.text());
    Listening listening;
    listen(session, listening, "A");
    rv_AddHook(session, RV_HOOK_LISTEN, refuse, &refused);
    runUntil([&] { return refused == 2 && rv_IsConnected(session); });
    rv_Close(session);
    daemon.finish();
    EXPECT_EQ(announced_, Texts{});
}

TEST_F(Handshake, AListenHookMayCloseTheSessionAndRefuse) {
    ScriptedDaemon daemon = losesTheFirstConnectionAfter(2);
    rv_Session session = open(daemon.text());
    Listening listening;
    listen(session, listening, "A");
    const rv_Hook close = [](rv_Session self, const void*, void*) {
        rv_Close(self);
        return 1;
    };
    rv_AddHook(session, RV_HOOK_LISTEN, close, nullptr);
    runUntil([&] { return !rv_IsOpen(session); });
    daemon.finish();
    EXPECT_EQ(announced_, Texts{});
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
    const auto introducedTo = [this](ScriptedDaemon::Script script) {
        ScriptedDaemon daemon(std::move(script));
        return codeOfOpening(daemon.text());
    };
    const auto answering = [&](wire::Built answer) {
        auto shared = std::make_shared<wire::Built>(std::move(answer));
        return introducedTo([shared](PeerLink& peer) {
            peer.negotiateV4();
            peer.readMessage();
            peer.send(*shared);
            peer.readMessage();
        });
    };
    EXPECT_EQ(introducedTo([](PeerLink& peer) { peer.greet(5); }), 4) << "another version";
    EXPECT_EQ(introducedTo([](PeerLink& peer) {
                  peer.greet(4);
                  peer.readGreeting();
              }),
              1)
        << "version 4 fails where 3 was not offered";
    EXPECT_EQ(introducedTo([](PeerLink& peer) {
                  peer.negotiateV4();
                  peer.readMessage();
              }),
              22)
        << "no answer to the introduction";
    EXPECT_EQ(answering(wire::buildErrorReply(16)), 16);
    EXPECT_EQ(answering(wire::buildErrorReply(17)), 17);
    EXPECT_EQ(answering(wire::buildErrorReply(0)), 17) << "no error, but no address either";
    EXPECT_EQ(answering(wire::buildInit({})), 1) << "not a reply at all";
}

// A session on a clock that stands, whose connections all break; what it does when is noted.
class Reconnecting : public Handshake {
  protected:
    void connectTo(ScriptedDaemon& daemon) {
        session_ = open(daemon.text());
        const rv_Hook onLoss = [](rv_Session, const void*, void* self) {
            ++static_cast<Reconnecting*>(self)->losses_;
            return rvevm_Stop(static_cast<Reconnecting*>(self)->manager_);
        };
        const rv_Hook onReturn = [](rv_Session, const void*, void* self) {
            ++static_cast<Reconnecting*>(self)->returns_;
            return rvevm_Stop(static_cast<Reconnecting*>(self)->manager_);
        };
        rv_AddHook(session_, RV_HOOK_DISCONNECT, onLoss, this);
        rv_AddHook(session_, RV_HOOK_RECONNECT, onReturn, this);
    }
    void runToLoss(int number) {
        while (losses_ < number) rvevm_MainLoop(manager_);
    }
    void runToReturn(int number) {
        while (returns_ < number) rvevm_MainLoop(manager_);
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
    runToReturn(1);
    runToLoss(2);
    clock_.advance(249);
    settle();
    EXPECT_EQ(returns_, 1);
    clock_.advance(1);
    runToReturn(2);
    clock_.advance(2'000);
    runToLoss(3);
    runToReturn(3);  // this connection had lasted: at once
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
    runToLoss(2);
    rv_RemoveHook(session_, RV_HOOK_LISTEN, sendUntilLost, nullptr);
    clock_.advance(15'000);
    runToReturn(1);
    clock_.advance(15'000);
    settle();
    EXPECT_EQ(returns_, 1);
    EXPECT_EQ(losses_, 2);
    closeAll();
}

TEST_F(Handshake, FourFailedAttemptsArePausedByTwoSecondsEach) {
    ScriptedDaemon nobody(std::vector<ScriptedDaemon::Script>{});
    nobody.finish();
    platform::ManualClock clock;
    const auto before = clock.now();
    EXPECT_EQ(codeOfOpening(nobody.text()), 22);
    EXPECT_EQ(clock.now() - before, 8'000);
}

TEST_F(Handshake, AGreetingThatDoesNotBeginWithZeroIsAFailedAttempt) {
    ScriptedDaemon daemon({[](PeerLink& peer) { peer.greet(4, 1); },
                           [](PeerLink& peer) {
                               peer.welcome();
                               takeUntilGoodbye(peer);
                           }});
    EXPECT_EQ(codeOfOpening(daemon.text()), 0);
    closeAll();
}

TEST_F(Handshake, DaemonTextsOfAnotherFormAreNotFound) {
    for (const char* text :
         {"udp:7500", "7500", "tcp", "TCP:7500", "tcp::7500", "tcp:no-such-host.invalid:7500"})
        EXPECT_EQ(codeOfOpening(text), 18) << text;
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
