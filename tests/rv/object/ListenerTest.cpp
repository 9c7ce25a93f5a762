// What a listener hands to its callback, and its time-out.

#include "rv/message/RvMsg.h"
#include "tests/rv/object/ObjectFixture.h"

namespace kvx::test {
namespace {

class Listener : public ObjectTest {};

TEST_F(Listener, HandsOverSubjectDatumAndReplySender) {
    std::string text;
    std::string reply;
    OnData data([&](const char*, RvSender* replyTo, const RvDatum& datum, RvListener*) {
        text = textOf(datum);
        reply = replyTo == nullptr ? "none" : replyTo->subject();
    });
    const std::unique_ptr<RvListener> listener(session->newListener("_RV.LOCAL.>", &data, nullptr));
    deliver("one", "answer.here");
    EXPECT_EQ(text, "one");
    EXPECT_EQ(reply, "answer.here");
    EXPECT_EQ(data.lastSubject, kSubject);
    deliver("two");
    EXPECT_EQ(text + reply, "twonone");
}

TEST_F(Listener, HandsOverAMessageAsOneAndAMissingPayloadAsNone) {
    long value = 0;
    rvmsg_Type type = RVMSG_BADDATA;
    OnData data([&](const char*, RvSender*, const RvDatum& datum, RvListener*) {
        type = datum.type();
        if (type != RVMSG_MSG) return;
        const auto* message = dynamic_cast<const RvMsg*>(&datum);
        ASSERT_NE(message, nullptr);
        EXPECT_TRUE(RvMsg(*message).get("n", value) == 0);
    });
    const std::unique_ptr<RvListener> listener(listen(data));
    RvMsg message;
    message.append("n", 42L);
    EXPECT_EQ(0, rv_Deliver(session->handle(), kSubject, nullptr, RVMSG_MSG, 0, message.data()));
    EXPECT_EQ(type, static_cast<rvmsg_Type>(RVMSG_MSG));
    EXPECT_EQ(value, 42);
    EXPECT_EQ(0, rv_Deliver(session->handle(), kSubject, nullptr, RVMSG_NONE, 0, nullptr));
    EXPECT_EQ(type, static_cast<rvmsg_Type>(RVMSG_NONE));
}

TEST_F(Listener, TimesOutOnceAndOnlyWithoutAMessage) {
    OnData silent;
    OnData served;
    const std::unique_ptr<RvListener> one(
        session->newListener("_RV.LOCAL.NOBODY", 3, &silent, this));
    const std::unique_ptr<RvListener> two(session->newListener(kSubject, 3, &served, this));
    deliver("in time");
    settle();
    settle();
    EXPECT_EQ(silent.timeouts, 1);
    EXPECT_EQ(served.timeouts, 0);
    EXPECT_EQ(served.messages, 1);
}

TEST_F(Listener, WithoutItsCallbackCancelsAtTheNextMessageAndStaysAnObject) {
    auto data = std::make_unique<OnData>();
    const std::unique_ptr<RvListener> listener(listen(*data));
    data.reset();
    deliver("cancels");
    const std::unique_ptr<RvSender> success(session->newSender("a"));
    EXPECT_STREQ(listener->subject(), kSubject);
    EXPECT_FALSE(listener->isInbox());
}

TEST_F(Listener, DeletingItLeavesTheResultOfTheCancelInTheStatus) {
    OnData data;
    std::unique_ptr<RvListener> listener(listen(data));
    EXPECT_EQ(session->newSender(nullptr), nullptr);
    listener.reset();
    EXPECT_TRUE(session->status() == 0);
}

}  // namespace
}  // namespace kvx::test
