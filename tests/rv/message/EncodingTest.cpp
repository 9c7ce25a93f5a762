// The wire layout, byte by byte, the rules for adding a field, and the ways to find one.

#include "Bytes.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/rvSubject.h"

TEST(Encoding, LaysEachTypeOutAsTheFormatSaysAndReadsItBack) {
    const std::uint32_t date[] = {255, 0x01020304, 0x0A0B0C};
    const std::int16_t negative = -2;
    const std::uint32_t word = 0x01020304;
    const std::uint64_t large = 0x0102030405060708;
    const float one = 1.0F;
    const double two = 2.0;
    const std::uint32_t truth = 1;
    const std::uint8_t address[] = {127, 0, 0, 1};
    std::uint8_t subject[16];
    rvSubject_FromText(subject, sizeof subject, "a.*");
    const Buffer empty;
    const struct {
        rvmsg_Type type;
        rvmsg_Size size;
        const void* data;
        Bytes wire;
        const char* text;
        bool isDecoded = true;  // into a variable of the size given
    } cases[] = {
        {RVMSG_DATETIME, 12, date, {3, 8, 1, 2, 3, 4, 255, 0x0A, 0x0B, 0x0C}, nullptr},
        {RVMSG_OPAQUE, 2, "xy", {7, 2, 'x', 'y'}, "[2 opaque bytes]"},
        {RVMSG_STRING, 0, "ab", {8, 3, 'a', 'b', 0}, "\"ab\"", false},
        {RVMSG_BOOLEAN, 4, &truth, {9, 1, 1}, "True", false},
        {RVMSG_IPDATA, 4, address, {10, 4, 127, 0, 0, 1}, "7f000001"},
        {RVMSG_IPDATA, 2, address, {10, 2, 127, 0}, "7f00"},
        {RVMSG_INT, 2, &negative, {11, 2, 0xFF, 0xFE}, "-2"},
        {RVMSG_UINT, 4, &word, {12, 4, 1, 2, 3, 4}, "16909060"},
        {RVMSG_UINT, 8, &large, {12, 8, 1, 2, 3, 4, 5, 6, 7, 8}, nullptr},
        {RVMSG_REAL, 4, &one, {13, 4, 0x3F, 0x80, 0, 0}, "1"},
        {RVMSG_REAL, 8, &two, {13, 8, 0x40, 0, 0, 0, 0, 0, 0, 0}, "2"},
        {RVMSG_SUBJECT, 0, subject, {2, 0x79, 0, 9, 2, 3, 'a', 0, 3, '*', 0}, "[a.*]", false},
        {RVMSG_MSG, 0, empty.bytes.data(), Bytes{1, 0x7A} + empty.message(), "{}", false},
        {RVMSG_ENCRYPTED,
         0,
         "\0\0\0\x0A\x99\x55\xEE\xBB\x08Z",
         {32, 0x7A, 0, 0, 0, 10, 0x99, 0x55, 0xEE, 0xBB, 8, 'Z'},
         "[10 encrypted bytes]",
         false},
        {5, 4, "data", {5}, "", false},
        {1000, 4, "data", {255}, "", false},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.type);
        Buffer buffer;
        ASSERT_EQ(buffer.append("x", expected.type, expected.size, expected.data), 0);
        EXPECT_EQ(buffer.fields(), (Bytes{2, 'x', 0} + expected.wire));
        if (expected.text != nullptr) {
            EXPECT_EQ(printed(buffer.bytes.data()), "{ x=" + std::string(expected.text) + "}");
        }
        alignas(8) std::uint8_t scratch[16];
        rvmsg_Size size = 0;
        rvmsg_Data data = nullptr;
        EXPECT_EQ(rvmsg_Get(scratch, buffer.bytes.data(), "x", nullptr, &size, &data), 0);
        if (!expected.isDecoded) continue;
        EXPECT_EQ(size, expected.size);
        EXPECT_EQ(std::memcmp(data, expected.data, size), 0);
    }
}

TEST(Encoding, TakesTheShortestOfThreeSizeForms) {
    const std::vector<std::pair<rvmsg_Size, Bytes>> forms = {
        {119, {0x77}},
        {120, {0x79, 0x00, 0x7A}},
        {29999, {0x79, 0x75, 0x31}},
        {30000, {0x7A, 0x00, 0x00, 0x75, 0x34}},
    };
    const Bytes data(30000, 7);
    for (const auto& [size, form] : forms) {
        Buffer buffer(40000);
        ASSERT_EQ(buffer.append(nullptr, RVMSG_OPAQUE, size, data.data()), 0);
        const Bytes expected = Bytes{0, RVMSG_OPAQUE} + form;
        EXPECT_EQ(Bytes(buffer.bytes.begin() + 8, buffer.bytes.begin() + 8 + expected.size()),
                  expected);
        EXPECT_EQ(buffer.length(), 8 + expected.size() + size);
    }
}

TEST(Encoding, RefusesWhatAFieldCannotHold) {
    const struct {
        rvmsg_Type type;
        rvmsg_Size size;
        int code;
    } cases[] = {
        {RVMSG_BADDATA, 1, 3}, {RVMSG_NONE, 1, 3},     {RVMSG_DATETIME, 11, 3},
        {RVMSG_BOOLEAN, 8, 3}, {RVMSG_IPDATA, 3, 3},   {RVMSG_INT, 3, 3},
        {RVMSG_REAL, 2, 3},    {RVMSG_INT, 0, 3},      {RVMSG_MSG, 0, 1},
        {RVMSG_INT, 500, 8},   {RVMSG_OPAQUE, 500, 8}, {RVMSG_ENCRYPTED, 0, 1},
    };
    for (const auto& refused : cases) {
        Buffer buffer;
        const char data[32] = {};
        EXPECT_EQ(buffer.append("n", refused.type, refused.size, data), refused.code)
            << refused.type;
        EXPECT_EQ(buffer.length(), 8U);
    }
    EXPECT_EQ(Buffer().append("n", RVMSG_STRING, 0, nullptr), 3);
    Bytes noMessage(64);
    EXPECT_EQ(rvmsg_Append(noMessage.data(), 64, "n", RVMSG_STRING, 0, "x"), 1);
    EXPECT_EQ(rvmsg_Init(noMessage.data(), 7), 8) << "no room for a header";
    EXPECT_EQ(Buffer().append(std::string(99, 'n').c_str(), "x"), 0);
    EXPECT_EQ(Buffer().append(std::string(100, 'n').c_str(), "x"), 9);
}

TEST(Encoding, AsksForSlightlyMoreRoomThanItWrites) {
    // Header 8, name and type 4; a text of 3 bytes asks for 3 + 5 and one more behind them.
    Buffer tooSmall(20);
    EXPECT_EQ(tooSmall.append("x", "ab"), 8);
    Buffer enough(21);
    EXPECT_EQ(enough.append("x", "ab"), 0);
    EXPECT_EQ(enough.length(), 16U);
    // A number asks for its size, its size byte and one more.
    const std::int32_t value = 1;
    EXPECT_EQ(Buffer(17).append("x", RVMSG_INT, 4, &value), 8);
    EXPECT_EQ(Buffer(18).append("x", RVMSG_INT, 4, &value), 0);
}

TEST(Encoding, AppendsByAPathThroughNestedMessagesAndKeepsWhatFollows) {
    Buffer inner;
    inner.append("old", "1");
    Buffer middle;
    middle.append("inner", RVMSG_MSG, 0, inner.bytes.data());
    Buffer outer;
    outer.append("middle", RVMSG_MSG, 0, middle.bytes.data());
    outer.append("after", "kept");
    const rvmsg_Size before = outer.length();
    ASSERT_EQ(outer.append("middle.inner.new", "2"), 0);
    EXPECT_EQ(outer.length(), before + 9);
    EXPECT_EQ(outer.append("after.b", "x"), 3);
    EXPECT_EQ(outer.append("missing.b", "x"), 11);
    EXPECT_EQ(outer.append((std::string(101, 'a') + ".b").c_str(), "x"), 9);
    EXPECT_EQ(printed(outer.bytes.data()), R"({ middle={ inner={ old="1" new="2"}} after="kept"})");
    EXPECT_EQ(rvmsg_Validate(outer.bytes.data(), outer.length()), 0);
    Bytes cut = messageOf(fieldOf("m", Bytes{RVMSG_MSG, 0x7A} + big32(200) + big32(0x9955EEAA)));
    cut.resize(64);
    EXPECT_EQ(rvmsg_Append(cut.data(), 64, "m.b", RVMSG_STRING, 0, "x"), 3);
}

TEST(Print, PutsMessagesInBracesAndShowsWhatNoFieldHolds) {
    const auto value = [](rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
        return printed([=](FILE* stream) { rvmsg_Print(type, size, data, stream); });
    };
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
    EXPECT_EQ(value(RVMSG_BADDATA, 0, nullptr), "BADDATA");
    EXPECT_EQ(value(RVMSG_NONE, 0, nullptr), "NONE");
    EXPECT_EQ(value(RVMSG_OPAQUE, UINT32_MAX, "abc"), "[-1 opaque bytes]");
    EXPECT_EQ(value(RVMSG_STRING, 3, "abcdef"), "\"abc\"");
    EXPECT_EQ(value(RVMSG_STRING, 9, "abc\0efgh"), "\"abc\"");
    EXPECT_EQ(value(RVMSG_STRING, 0, "abcdef"), "\"abcdef\"");
    EXPECT_EQ(value(RVMSG_INT, 3, "abc"), "");
}

// Finding fields by name and path, and walking them all.

namespace {

// The text of a field, or the code when there is none.
std::string find(const Bytes& message, const std::string& name) {
    alignas(8) unsigned char scratch[16];
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    const int code = rvmsg_Get(scratch, message.data(), name.c_str(), &type, &size, &data);
    return code == 0 ? static_cast<const char*>(data) : std::to_string(code);
}

int note(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, void* log) {
    *static_cast<std::string*>(log) += std::string(name) + ":" + std::to_string(type) + "/" +
                                       std::to_string(size) + (data == nullptr ? "- " : " ");
    return std::string(name) == "stop" ? 1 : 0;
}

std::string walked(const Bytes& message, const char* name = nullptr, int code = 0) {
    std::string log;
    EXPECT_EQ(rvmsg_Iterate(message.data(), name, note, &log), code);
    return log;
}

}  // namespace

TEST(Lookup, FollowsPathsToTheFirstOfAName) {
    Buffer inner;
    inner.append("b", "deep");
    Buffer outer;
    outer.append("a", RVMSG_MSG, 0, inner.bytes.data());
    outer.append("s", "text");
    outer.append("s", "second");
    const Bytes message = outer.message();
    EXPECT_EQ(walked(message, "s"), "s:8/5 s:8/7 ");
    for (const auto& [name, found] :
         std::vector<std::pair<std::string, const char*>>{{"s", "text"},
                                                          {"a.b", "deep"},
                                                          {"a.x", "11"},
                                                          {"s.b", "11"},
                                                          {"x.b", "11"},
                                                          {"a.", "9"},
                                                          {"x.", "11"},
                                                          {"", "9"},
                                                          {".", "9"},
                                                          {std::string(101, 'a'), "9"}}) {
        EXPECT_EQ(find(message, name), found) << name;
    }
    const std::string longer(100, 'n');  // than the encoder writes
    EXPECT_EQ(find(messageOf(fieldOf(longer, {RVMSG_STRING, 2, 'x', 0})), longer), "x");
    EXPECT_EQ(find(Bytes(16), "a"), "1");
}

TEST(Iteration, ReportsEveryFieldInOrderUntilToldToStop) {
    Buffer buffer;
    const std::int16_t value = 1;
    buffer.append("a", "x");
    buffer.append(nullptr, RVMSG_INT, 2, &value);
    buffer.append("odd", 5, 0, "");
    EXPECT_EQ(walked(buffer.message()), "a:8/2 :11/2 odd:5/0 ");
    buffer.append("stop", "x");
    buffer.append("b", "x");
    EXPECT_EQ(walked(buffer.message()), "a:8/2 :11/2 odd:5/0 stop:8/2 ");
}

TEST(Iteration, ReportsWhatItCannotDecodeAsNoValueAndGoesOnWhereAnIteratorEnds) {
    const Bytes next = fieldOf("j", {RVMSG_INT, 1, 1});
    Bytes message = messageOf(fieldOf("i", {RVMSG_INT, 3, 1, 2, 3}) + next);
    EXPECT_EQ(walked(message), "i:0/0- j:11/1 ");
    EXPECT_EQ(find(message, "i"), "10");
    Bytes foreign = messageOf(fieldOf("m", Bytes{RVMSG_MSG, 0x7A} + big32(8) + big32(0)) + next);
    for (Bytes* bytes : {&message, &foreign}) {
        const RvMsg wrapped(static_cast<rvmsg_Msg>(bytes->data()));
        const std::unique_ptr<RvMsgIterator> fields(wrapped.newIterator());
        EXPECT_EQ(fields->next(), nullptr);
        EXPECT_EQ(fields->next(), nullptr);
    }
}
