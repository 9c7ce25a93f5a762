// Inboxes and requests through a real daemon, and filters on both ways.

#include "rv/session/rvSessionHooks.h"
#include "tests/rv/object/ObjectFixture.h"
#include "tests/support/Daemon.h"

namespace kvx::test {
namespace {

const RvDatum kQuestion(RVMSG_STRING, 0, "question");
constexpr unsigned long kLong = 60'000;

class Request : public ObjectTest {
  protected:
    Request() {
        connect(daemon.text());
        service = openSession(daemon.text());
        serving.reset(service->newListener("service", &answers, nullptr));
        asking.reset(session->newSender("service", "ignored.here"));
    }
    Daemon daemon;
    std::unique_ptr<RvSession> service;
    OnData answers{[](const char*, RvSender* replyTo, const RvDatum&, RvListener*) {
        ASSERT_NE(replyTo, nullptr);
        EXPECT_TRUE(replyTo->send(RvDatum(RVMSG_STRING, 0, "answer")) == 0);
    }};
    std::unique_ptr<RvListener> serving;
    std::unique_ptr<RvSender> asking;
};

TEST_F(Request, AnswerComesToItsInboxAndEndsTheTimeout) {
    std::string text;
    OnData reply([&](const char*, RvSender* replyTo, const RvDatum& datum, RvListener*) {
        EXPECT_EQ(replyTo, nullptr);
        text = textOf(datum);
    });
    const std::unique_ptr<RvListener> inbox(asking->sendRequest(kQuestion, kLong, &reply, this));
    ASSERT_NE(inbox, nullptr);
    EXPECT_TRUE(inbox->isInbox());
    EXPECT_EQ(inbox->closure(), this);
    EXPECT_EQ(std::string(inbox->subject()).substr(0, 7), "_INBOX.");
    runUntil([&] { return reply.messages > 0; });
    EXPECT_EQ(text, "answer");
    EXPECT_EQ(reply.timeouts, 0);
}

TEST_F(Request, TimesOutWithoutAnAnswerAndMayDeleteItsListenerThen) {
    const std::unique_ptr<RvSender> nobody(session->newSender("nobody.listens"));
    RvListener* inbox = nullptr;
    OnData reply;
    reply.callOnTimeout = [&](RvListener* listener) {
        EXPECT_EQ(listener, inbox);
        delete listener;
    };
    inbox = nobody->sendRequest(kQuestion, 2, &reply, nullptr);
    runUntil([&] { return reply.timeouts > 0; });
    settle();
    EXPECT_EQ(reply.timeouts, 1);
}

// Answers before the question is sent.
int answerAtOnce(rv_Session session, const void* message, void* /*closure*/) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data inbox = nullptr;
    EXPECT_EQ(0, rvmsg_GetRaw(message, "return", &type, &size, &inbox));
    return rv_Deliver(session, static_cast<const char*>(inbox), nullptr, RVMSG_STRING, 0, "x");
}

TEST_F(Request, MayBeAnsweredAndDeletedBeforeItHasBeenSent) {
    OnData reply([](const char*, RvSender*, const RvDatum&, RvListener* inbox) { delete inbox; });
    rv_AddHook(session->handle(), RV_HOOK_PUBLISH, answerAtOnce, nullptr);
    EXPECT_EQ(asking->sendRequest(kQuestion, kLong, &reply, nullptr), nullptr);
    EXPECT_TRUE(session->status() == 0);
    EXPECT_EQ(reply.messages, 1);
}

TEST_F(Request, ThatCannotBePublishedLeavesNoListener) {
    OnData reply;
    const std::unique_ptr<RvSender> wrong(session->newSender("a..b"));
    EXPECT_EQ(wrong->sendRequest(kQuestion, &reply, nullptr), nullptr);
    EXPECT_TRUE(session->status() == 21);
    EXPECT_EQ(asking->sendRequest(kQuestion, nullptr, nullptr), nullptr);
    EXPECT_TRUE(session->status() == 3);
}

TEST_F(Request, InboxMarkerCountsByItsAddressOnly) {
    OnData data;
    const std::string sameText(inboxMarker);
    const std::unique_ptr<RvListener> inbox(session->newListener(inboxMarker, &data, nullptr));
    const std::unique_ptr<RvListener> plain(session->newListener(sameText.c_str(), &data, nullptr));
    ASSERT_TRUE(inbox && plain);
    EXPECT_TRUE(inbox->isInbox());
    EXPECT_FALSE(plain->isInbox());
    const std::unique_ptr<RvSender> sender(session->newSender(plain->subject()));
    EXPECT_TRUE(sender->send(kQuestion) == 0);
    runUntil([&] { return data.messages > 0; });
    EXPECT_EQ(data.lastSubject, sameText);
}

// The daemon's death is told to the session's own listeners, inside whatever operation finds it.
TEST_F(Request, SurvivesAListenerThatDestroysEverythingWhenTheDaemonDies) {
    OnData onLoss([this](const char*, RvSender*, const RvDatum&, RvListener*) {
        asking.reset();
        session.reset();
    });
    const std::unique_ptr<RvListener> loss(
        session->newListener("_RV.WARN.SYSTEM.RVD.DISCONNECTED", &onLoss, nullptr));
    service.reset();
    daemon.kill();
    runUntil([&] {
        if (asking) asking->send(kQuestion);
        return session == nullptr;
    });
    EXPECT_EQ(onLoss.messages, 1);
}

// Filters on both ways: passing on, replacing, refusing, and destroying what they are called for.

const RvDatum kOriginal(RVMSG_STRING, 0, "original");

// Lives on the heap and owns its text, as a filter's new datum must.
RvDatum* newText(const char* text) {
    return new RvDatum(RvDatum(RVMSG_STRING, 0, text));
}

class FilterTest : public ObjectTest {
  protected:
    std::string heard;
    const OnData::Function hear = [this](const char*, RvSender*, const RvDatum& datum,
                                         RvListener*) { heard += textOf(datum); };
    std::unique_ptr<Filter> filter;
    std::unique_ptr<RvListener> listener;
};

class InboundFilter : public FilterTest {
  protected:
    void listenThrough(Filter::Function function) {
        filter = std::make_unique<Filter>(std::move(function));
        session->setInboundFilter(filter.get());
        listener.reset(listen(*data));
        ASSERT_NE(listener, nullptr);
    }
    std::unique_ptr<OnData> data = std::make_unique<OnData>(hear);
};

class OutboundFilter : public FilterTest {
  protected:
    OutboundFilter() {
        connect(daemon.text());
        receiver = openSession(daemon.text());
        listener.reset(receiver->newListener("filtered", &data, nullptr));
    }
    void sendThrough(Filter::Function function) {
        filter = std::make_unique<Filter>(std::move(function));
        session->setOutboundFilter(filter.get());
        sender.reset(session->newSender("filtered"));
    }
    Daemon daemon;
    std::unique_ptr<RvSender> sender;
    std::unique_ptr<RvSession> receiver;
    OnData data{hear};
};

TEST_F(InboundFilter, PassesOnReplacesAndRefuses) {
    int turn = 0;
    listenThrough([&](RvDatum* datum, void* object) -> RvDatum* {
        EXPECT_EQ(object, listener.get());
        ++turn;
        return turn == 1 ? datum : turn == 2 ? newText("new") : nullptr;
    });
    EXPECT_EQ(listener->inboundFilter(), filter.get());
    for (int i = 0; i < 3; ++i) deliver("same", "reply");
    EXPECT_EQ(heard, "samenew");
    filter.reset();
    EXPECT_EQ(listener->inboundFilter(), nullptr);
    deliver("bare");
    EXPECT_EQ(heard, "samenewbare");
}

TEST_F(InboundFilter, MayDestroyWhatItIsCalledFor) {
    const std::function<RvDatum*(RvDatum*)> deaths[] = {
        [this](RvDatum*) {
            listener.reset();
            return newText("lost");
        },
        [this](RvDatum* datum) {
            data.reset();
            filter.reset();
            return datum;
        },
        [this](RvDatum* datum) {
            session.reset();
            return datum;
        },
    };
    for (const auto& death : deaths) {
        data = std::make_unique<OnData>(hear);
        listenThrough([&](RvDatum* datum, void*) { return death(datum); });
        deliver("x", "reply");
        EXPECT_EQ(heard, "");
    }
}

TEST_F(OutboundFilter, PassesOnReplacesAndRefuses) {
    int turn = 0;
    sendThrough([&](RvDatum* datum, void* object) -> RvDatum* {
        EXPECT_EQ(object, sender.get());
        ++turn;
        return turn == 1 ? datum : turn == 2 ? newText("new") : nullptr;
    });
    EXPECT_TRUE(sender->send(kOriginal) == 0);
    EXPECT_TRUE(sender->send(kOriginal) == 0);
    EXPECT_TRUE(sender->send(kOriginal) == 3);
    EXPECT_EQ(sender->sendRequest(kOriginal, &data, nullptr), nullptr);
    EXPECT_TRUE(session->status() == 3);
    filter.reset();
    EXPECT_TRUE(sender->send(kOriginal) == 0);
    runUntil([&] { return data.messages >= 3; });
    EXPECT_EQ(heard, "originalneworiginal");
}

TEST_F(OutboundFilter, MayDestroyTheSenderAndTheSession) {
    sendThrough([&](RvDatum*, void*) {
        sender.reset();
        filter.reset();
        return newText("last");
    });
    EXPECT_TRUE(sender->send(kOriginal) == 0);
    runUntil([&] { return data.messages >= 1; });
    EXPECT_EQ(heard, "last");
    sendThrough([&](RvDatum* datum, void*) {
        session.reset();
        return datum;
    });
    EXPECT_TRUE(sender->send(kOriginal) == 2);
    EXPECT_EQ(sender->sendRequest(kOriginal, &data, nullptr), nullptr);
}

}  // namespace
}  // namespace kvx::test
