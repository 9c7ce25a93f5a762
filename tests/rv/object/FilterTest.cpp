// Filters on both ways: passing on, replacing, refusing, and destroying what they are called for.

#include "tests/rv/object/ObjectFixture.h"
#include "tests/support/Daemon.h"

namespace kvx::test {
namespace {

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
