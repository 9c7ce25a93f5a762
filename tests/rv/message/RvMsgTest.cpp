#include "rv/message/RvMsg.h"

#include "Bytes.h"
#include "rv/message/RvMsgIterator.h"

namespace {

std::string text(const RvMsg& message) {
    return printed(message.data());
}

/// A user's own idea of when two messages are the same.
struct AlwaysEqual : RvMsg {
    using RvMsg::operator==;
    bool operator==(const RvMsg& /*other*/) const override { return true; }
};

}  // namespace

TEST(RvMsg, GrowsOnceToExactlyWhatAnAppendNeeds) {
    RvMsg message(5);
    EXPECT_EQ(message.size(), 8U);
    EXPECT_TRUE(message.append("x", "ab") == 0);
    EXPECT_EQ(message.size(), 16U);
    const Bytes large(100000, 7);
    EXPECT_TRUE(message.append("large", RVMSG_OPAQUE, 100000, large.data()) == 0);
    EXPECT_EQ(rvmsg_Validate(message.data(), message.size()), 0);
    EXPECT_TRUE(message.append(nullptr, RVMSG_INT, 3, "abc").isMessage(3));
    EXPECT_TRUE(message.append("huge", RVMSG_OPAQUE, 0xFFFFFFFF, "").isMessage(8));
}

TEST(RvMsg, AppendsDataThatLiesInItself) {
    RvMsg message(8);
    message.append("text", "a text that lives in the message");
    RvDatum found;
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(message.get("text", found) == 0);
        ASSERT_TRUE(message.append("copy", found) == 0);
    }
    ASSERT_TRUE(message.get("copy", found) == 0);
    EXPECT_STREQ(static_cast<const char*>(found.data()), "a text that lives in the message");
}

TEST(RvMsg, WritesAndReadsTypedFields) {
    RvMsg message;
    EXPECT_TRUE(message.append("short", static_cast<short>(-2)) == 0);
    EXPECT_TRUE(message.append("ushort", static_cast<unsigned short>(65535)) == 0);
    EXPECT_TRUE(message.append("long", -2L) == 0);
    EXPECT_TRUE(message.append("ulong", 4294967295UL) == 0);
    EXPECT_TRUE(message.append("float", 0.5F) == 0);
    EXPECT_TRUE(message.append("double", 0.25) == 0);
    EXPECT_TRUE(message.append("int", 7) == 0);
    EXPECT_EQ(text(message),
              "{ short=-2 ushort=65535 long=-2 ulong=4294967295 float=0.5 double=0.25 int=7}");
    unsigned long value = 0;
    unsigned short narrow = 0;
    double real = 0;
    EXPECT_TRUE(message.get("ulong", value) == 0 && message.get("ushort", narrow) == 0);
    EXPECT_TRUE(message.get("float", real) == 0);
    EXPECT_EQ(value, 4294967295UL);
    EXPECT_EQ(narrow, 65535);
    EXPECT_EQ(real, 0.5);
    EXPECT_TRUE(message.get("missing", value).isMessage(11));
}

TEST(RvMsg, RefusesALongThat32BitsDoNotHold) {
    RvMsg message;
    EXPECT_TRUE(message.append("n", 2147483648L).isMessage(3));
    EXPECT_TRUE(message.append("n", -2147483649L).isMessage(3));
    EXPECT_TRUE(message.append("n", 4294967296UL).isMessage(3));
    EXPECT_EQ(message.size(), 8U);
}

TEST(RvMsg, WrapsWithoutOwningOrChanging) {
    Buffer buffer;
    buffer.append("a", "x");
    RvMsg wrapped(static_cast<rvmsg_Msg>(buffer.bytes.data()));
    EXPECT_EQ(wrapped.size(), buffer.length());
    EXPECT_TRUE(wrapped.append("b", "y").isMessage(3));
    EXPECT_TRUE(wrapped.reserve(100).isMessage(3));
    RvMsg owner;
    owner.append("old", "x");
    EXPECT_TRUE(owner.attach(buffer.bytes.data()) == 0);
    EXPECT_EQ(text(owner), R"({ a="x"})");
}

TEST(RvMsg, ReservesToTheByteAndRefusesTheImpossible) {
    RvMsg message(8);
    EXPECT_TRUE(message.reserve(21) == 0);
    const void* const buffer = message.data();
    EXPECT_TRUE(message.append("x", "ab") == 0);
    EXPECT_EQ(message.data(), buffer);
    EXPECT_TRUE(message.reserve(1UL << 40U).isMessage(8));
    const Bytes noMessage(8, 0xFF);  // its "length" asks for no memory
    EXPECT_TRUE(RvMsg(8).append("m", RVMSG_MSG, 0, noMessage.data()).isMessage(1));
}

TEST(RvMsg, IsInertAroundBadBuffers) {
    Bytes noMessage(16);
    for (rvmsg_Msg buffer :
         {static_cast<rvmsg_Msg>(nullptr), static_cast<rvmsg_Msg>(noMessage.data())}) {
        RvMsg inert(buffer);
        RvDatum found;
        EXPECT_EQ(inert.size(), 0U);
        EXPECT_TRUE(inert.append("x", "y").isMessage(1));
        EXPECT_TRUE(inert.get("x", found).isMessage(1));
        EXPECT_TRUE(inert.attach(Buffer().bytes.data()).isMessage(1));
        const std::unique_ptr<RvMsgIterator> fields(inert.newIterator());
        EXPECT_EQ(fields->next(), nullptr);
        EXPECT_EQ(RvMsg(inert).size(), 0U);
    }
    EXPECT_EQ(RvMsg(1UL << 40U).size(), 0U);
}

TEST(RvMsg, IsNoMessageAnyMoreWhenSetToAnotherValue) {
    RvMsg message;
    static_cast<RvDatum&>(message) = RvDatum("n", RVMSG_STRING, 2, "x");
    EXPECT_EQ(message.size(), 0U);
    EXPECT_FALSE(message == RvMsg(static_cast<rvmsg_Msg>(nullptr)));
}

TEST(RvMsg, CopiesAreEqualAndIndependent) {
    RvMsg original;
    original.append("a", "x");
    RvMsg copy(original);
    EXPECT_TRUE(copy == original);
    copy.append("b", "y");
    EXPECT_FALSE(copy == original);
    RvMsg assigned(16);
    assigned = copy;
    EXPECT_EQ(text(assigned), text(copy));
    const RvMsg inert(static_cast<rvmsg_Msg>(nullptr));
    assigned = inert;
    EXPECT_EQ(text(assigned), text(copy));
    const RvDatum datum(static_cast<const RvDatum&>(copy));
    EXPECT_TRUE(copy == datum);
    EXPECT_FALSE(copy == RvDatum(RVMSG_STRING, 2, "x"));
    const AlwaysEqual derived;
    EXPECT_TRUE(static_cast<const RvMsg&>(derived) == copy);
}

TEST(RvMsg, NestsMessages) {
    RvMsg inner;
    inner.append("b", 7);
    RvMsg outer;
    EXPECT_TRUE(outer.append("a", inner) == 0);
    outer.append("text", "x");
    RvMsg found;
    long value = 0;
    EXPECT_TRUE(outer.get("a", found) == 0);
    EXPECT_TRUE(found.get("b", value) == 0);
    EXPECT_TRUE(outer.get("a.b", value) == 0);
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(outer.get("text", found).isMessage(3));
    RvMsg walker(const_cast<void*>(outer.data()));
    EXPECT_TRUE(walker.get("a", walker) == 0);
    EXPECT_TRUE(walker.get("b", value) == 0);
}

TEST(RvMsgIterator, WalksNamedUnnamedAndNestedFields) {
    RvMsg inner;
    inner.append("b", 7);
    RvMsg message;
    message.append("a", static_cast<short>(1));
    message.append(nullptr, "x");
    message.append("m", inner);
    const std::unique_ptr<RvMsgIterator> fields(message.newIterator());
    for (int round = 0; round < 2; ++round) {
        const RvDatum* field = fields->next();
        ASSERT_NE(field, nullptr);
        EXPECT_STREQ(field->name(), "a");
        field = fields->next();
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(field->name(), nullptr);
        EXPECT_EQ(field->type(), RVMSG_STRING);
        const auto* const nested = dynamic_cast<const RvMsg*>(fields->next());
        ASSERT_NE(nested, nullptr);
        EXPECT_STREQ(nested->name(), "m");
        EXPECT_TRUE(*nested == inner);
        EXPECT_EQ(fields->next(), nullptr);
        fields->reset();
    }
}

TEST(RvMsgIterator, EndsAtABlockThatIsNoMessage) {
    Bytes bytes = messageOf(fieldOf("m", Bytes{1, 0x7A} + big32(8) + big32(0)) +
                            fieldOf("x", {8, 2, 'y', 0}));
    const RvMsg message(static_cast<rvmsg_Msg>(bytes.data()));
    const std::unique_ptr<RvMsgIterator> fields(message.newIterator());
    EXPECT_EQ(fields->next(), nullptr);
    EXPECT_EQ(fields->next(), nullptr);
}
