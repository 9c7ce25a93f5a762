#include "Bytes.h"
#include "rv/message/RvDatum.h"

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
