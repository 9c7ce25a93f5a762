// Datums and messages as objects.

#include "Bytes.h"
#include "rv/message/RvDatum.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"

TEST(RvDatum, BorrowsWhatItIsMadeFromAndOwnsWhatItCopies) {
    char text[] = "abc";
    RvDatum borrowed("name", RVMSG_STRING, 4, text);
    const RvDatum owned(borrowed);
    text[0] = 'X';
    EXPECT_STREQ(static_cast<const char*>(borrowed.data()), "Xbc");
    EXPECT_STREQ(static_cast<const char*>(owned.data()), "abc");
    EXPECT_STREQ(owned.name(), "name");
    borrowed.set(nullptr, RVMSG_INT, 4, nullptr);
    EXPECT_EQ(borrowed.name(), nullptr);
    EXPECT_EQ(borrowed.size(), 0U);
    RvDatum target;
    target = RvDatum(RVMSG_STRING, 8, "1234567");
    const void* const buffer = target.data();
    target = RvDatum(RVMSG_STRING, 3, "ab");
    EXPECT_EQ(target.data(), buffer) << "large enough";
    EXPECT_EQ(target.size(), 3U);
    const RvDatum& self = target;
    target = self;
    EXPECT_STREQ(static_cast<const char*>(target.data()), "ab");
    target = RvDatum(RVMSG_NONE, 0, nullptr);
    EXPECT_EQ(target.type(), RVMSG_NONE);
    EXPECT_EQ(target.data(), nullptr);
}

TEST(RvDatum, ACopyWorksOutAMissingSizeAndStillRecordsZero) {
    Bytes message = Buffer().message();
    Bytes sealed = big32(10) + big32(0x9955EEBB) + Bytes{8, 1};
    char text[] = "text";
    const std::vector<std::pair<RvDatum, Bytes>> unsized = {
        {RvDatum(RVMSG_STRING, 0, text), {'t', 'e', 'x', 't', 0}},
        {RvDatum(RVMSG_MSG, 0, message.data()), message},
        {RvDatum(RVMSG_ENCRYPTED, 0, sealed.data()), sealed}};
    std::fill(message.begin(), message.end(), 0);  // the vector holds copies
    std::fill(sealed.begin(), sealed.end(), 0);
    for (const auto& [copy, bytes] : unsized) {
        EXPECT_EQ(copy.size(), 0U);
        EXPECT_EQ(std::memcmp(copy.data(), bytes.data(), bytes.size()), 0);
    }
    for (const void* broken : {static_cast<const void*>(message.data()), rvmsg_Data{}}) {
        const RvDatum source(RVMSG_MSG, 0, broken);
        const RvDatum copy(source);
        EXPECT_EQ(copy.type(), RVMSG_BADDATA);
        EXPECT_EQ(copy.data(), nullptr);
    }
}

TEST(RvDatum, CopiesNothingThatAReaderOfTheCopyWouldOverrun) {
    const Bytes message = messageOf(Bytes(12, 1));
    Bytes shortBlock = message;
    const Bytes sealed = big32(20) + big32(0x9955EEBB) + Bytes(12, 1);
    const Bytes subject = {0, 6, 1, 3, 'a', 0};
    const std::vector<RvDatum> copies = {
        RvDatum(RVMSG_MSG, 19, message.data()), RvDatum(RVMSG_MSG, 7, message.data()),
        RvDatum(RVMSG_ENCRYPTED, 19, sealed.data()), RvDatum(RVMSG_SUBJECT, 4, subject.data()),
        RvDatum(RVMSG_SUBJECT, 1, subject.data())};
    for (const RvDatum& copy : copies) EXPECT_EQ(copy.type(), RVMSG_BADDATA);
    for (std::uint8_t length = 0; length < 8; ++length) {
        shortBlock[3] = length;
        const RvDatum datum(RVMSG_MSG, 0, shortBlock.data());
        EXPECT_EQ(RvDatum(datum).type(), RVMSG_BADDATA);
    }
    const RvDatum whole(RVMSG_MSG, 20, message.data());
    EXPECT_EQ(RvDatum(whole).type(), RVMSG_MSG);
}

TEST(RvDatum, ComparesTypeSizeAndBytes) {
    const RvDatum text(RVMSG_STRING, 3, "ab");
    EXPECT_TRUE(text == RvDatum(RVMSG_STRING, 3, "ab"));
    EXPECT_FALSE(text == RvDatum(RVMSG_STRING, 3, "aX"));
    EXPECT_FALSE(text == RvDatum(RVMSG_OPAQUE, 3, "ab"));
    EXPECT_TRUE(RvDatum(RVMSG_OPAQUE, 0, "x") == RvDatum(RVMSG_OPAQUE, 0, "y"));
    const RvDatum empty;
    EXPECT_FALSE(empty == empty);
}

TEST(RvDatum, TypedReadsFillTheWholeVariable) {
    const std::int16_t minusOne = -1;
    const RvDatum datum(RVMSG_INT, 2, &minusOne);
    long wide = 0;
    unsigned long unsignedValue = ~0UL;
    short narrow = 0;
    double real = 0;
    char text[8];
    EXPECT_TRUE(datum.getInt32(wide) == 0 && datum.getUInt32(unsignedValue) == 0);
    EXPECT_TRUE(datum.getInt16(narrow) == 0 && datum.getFloat64(real) == 0);
    EXPECT_TRUE(datum.getString(text, sizeof text) == 0);
    EXPECT_EQ(wide, -1L);
    EXPECT_EQ(unsignedValue, 0xFFFFFFFFUL);
    EXPECT_EQ(narrow, -1);
    EXPECT_EQ(real, -1.0);
    EXPECT_STREQ(text, "-1");
    EXPECT_TRUE(datum.getString(text, 6).isMessage(3));
    EXPECT_TRUE(RvDatum(RVMSG_STRING, 0, "x").getInt32(wide).isMessage(3));
    EXPECT_EQ(wide, -1L);
}

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

TEST(RvMsg, GrowsToWhatAnAppendNeedsAndRefusesTheImpossible) {
    RvMsg message(8);
    EXPECT_EQ(message.size(), 8U);
    EXPECT_TRUE(message.reserve(21) == 0);
    const void* const buffer = message.data();
    EXPECT_TRUE(message.append("x", "ab") == 0);
    EXPECT_EQ(message.data(), buffer);
    EXPECT_EQ(message.size(), 16U);
    const Bytes noMessage(8, 0xFF);  // its "length" asks for no memory
    EXPECT_TRUE(message.append("m", RVMSG_MSG, 0, noMessage.data()).isMessage(1));
    EXPECT_TRUE(message.append(nullptr, RVMSG_INT, 3, "abc").isMessage(3));
    EXPECT_TRUE(message.append("huge", RVMSG_OPAQUE, 0xFFFFFFFF, "").isMessage(8));
    EXPECT_TRUE(message.reserve(1UL << 40U).isMessage(8));
    for (const long tooWide : {2147483648L, -2147483649L})
        EXPECT_TRUE(message.append("n", tooWide).isMessage(3));
    EXPECT_TRUE(message.append("n", 4294967296UL).isMessage(3));
    EXPECT_EQ(message.size(), 16U);
    EXPECT_TRUE(message.append("large", RVMSG_OPAQUE, 100000, Bytes(100000, 7).data()) == 0);
    EXPECT_EQ(rvmsg_Validate(message.data(), message.size()), 0);
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
    const auto read = [&message](const char* name, auto value) {
        EXPECT_TRUE(message.get(name, value) == 0) << name;
        return value;
    };
    EXPECT_EQ(read("ulong", 0UL), 4294967295UL);
    EXPECT_EQ(read("ushort", static_cast<unsigned short>(0)), 65535);
    EXPECT_EQ(read("float", 0.0), 0.5);
    long value = 0;
    EXPECT_TRUE(message.get("missing", value).isMessage(11));
    RvMsg none;
    EXPECT_TRUE(message.get("long", none).isMessage(3));
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

TEST(RvMsg, IsInertAroundBadBuffersAndWhenSetToAnotherValue) {
    Bytes noMessage(16);
    for (rvmsg_Msg buffer : {rvmsg_Msg{}, static_cast<rvmsg_Msg>(noMessage.data())}) {
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
    RvMsg message;
    static_cast<RvDatum&>(message) = RvDatum("n", RVMSG_STRING, 2, "x");
    EXPECT_EQ(message.size(), 0U);
    EXPECT_FALSE(message == RvMsg(rvmsg_Msg{}));
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

TEST(RvMsgIterator, WalksNamedUnnamedAndNestedFields) {
    RvMsg inner;
    inner.append("b", 7);
    RvMsg message;
    message.append("a", static_cast<short>(1));
    message.append(nullptr, "x");
    message.append("m", inner);
    const std::unique_ptr<RvMsgIterator> fields(message.newIterator());
    for (int round = 0; round < 2; ++round) {
        std::string walked;
        while (const RvDatum* const field = fields->next()) {
            walked += field->name() == nullptr ? "unnamed" : field->name();
            const auto* const nested = dynamic_cast<const RvMsg*>(field);
            walked +=
                ':' + (nested != nullptr ? text(*nested) : std::to_string(field->type())) + ' ';
        }
        EXPECT_EQ(walked, "a:11 unnamed:8 m:{ b=7} ");
        fields->reset();
    }
}
