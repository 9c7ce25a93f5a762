#include "Bytes.h"
#include "rv/message/rvSubject.h"

namespace {

std::string value(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    return printed([=](FILE* stream) { rvmsg_Print(type, size, data, stream); });
}

}  // namespace

TEST(Print, ShowsEachTypeInItsForm) {
    const std::int16_t number = -7;
    const std::uint8_t yes = 1;
    std::uint8_t subject[32];
    rvSubject_FromText(subject, sizeof subject, "A.*.>");
    EXPECT_EQ(value(RVMSG_BADDATA, 0, nullptr), "BADDATA");
    EXPECT_EQ(value(RVMSG_NONE, 0, nullptr), "NONE");
    EXPECT_EQ(value(RVMSG_SUBJECT, 0, subject), "[A.*.>]");
    EXPECT_EQ(value(RVMSG_OPAQUE, 3, "abc"), "[3 opaque bytes]");
    EXPECT_EQ(value(RVMSG_OPAQUE, UINT32_MAX, "abc"), "[-1 opaque bytes]");
    EXPECT_EQ(value(RVMSG_STRING, 3, "abcdef"), "\"abc\"");
    EXPECT_EQ(value(RVMSG_STRING, 9, "abc\0efgh"), "\"abc\"");
    EXPECT_EQ(value(RVMSG_STRING, 0, "abcdef"), "\"abcdef\"");
    EXPECT_EQ(value(RVMSG_INT, 2, &number), "-7");
    EXPECT_EQ(value(RVMSG_BOOLEAN, 1, &yes), "True");
    EXPECT_EQ(value(RVMSG_INT, 3, "abc"), "");
    EXPECT_EQ(value(RVMSG_ENCRYPTED, 9, "\0\0\0\x09\x99\x55\xEE\xBB\x08"), "[9 encrypted bytes]");
    EXPECT_EQ(value(5, 4, "abcd"), "");
}

TEST(Print, PutsMessagesInBraces) {
    const std::uint32_t number = 42;
    Buffer inner;
    inner.append(nullptr, RVMSG_UINT, 4, &number);
    Buffer outer;
    outer.append("text", "x");
    outer.append("inner", RVMSG_MSG, 0, inner.bytes.data());
    outer.append("odd", 5, 0, "");
    EXPECT_EQ(printed(outer.bytes.data()), R"({ text="x" inner={ 42} odd=})");
    EXPECT_EQ(printed(messageOf(fieldOf("i", {RVMSG_INT, 3, 1, 2, 3})).data()), "{ i=BADDATA}");
    EXPECT_EQ(rvmsg_PrintMsg(Bytes(8).data(), stdout), 1);
}
