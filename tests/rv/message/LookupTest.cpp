// Finding fields by name and path, decoding them, and walking them all.

#include <cstring>

#include "Bytes.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"

namespace {

struct Found {
    int code = 0;
    rvmsg_Type type = 99;
    rvmsg_Size size = 0;
    const void* data = nullptr;
    alignas(8) unsigned char scratch[16] = {};

    template <class Value>
    Value as() const {
        Value value;
        std::memcpy(&value, data, sizeof value);
        return value;
    }
};

Found find(const Bytes& message, const std::string& name) {
    Found found;
    found.code = rvmsg_Get(found.scratch, message.data(), name.c_str(), &found.type, &found.size,
                           &found.data);
    if (found.data != nullptr && found.type != RVMSG_STRING) found.data = found.scratch;
    return found;
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

TEST(Lookup, DecodesNumbersDatesAndAddresses) {
    Buffer buffer;
    const std::uint32_t date[] = {255, 0xFFFFFFFE, 123456};
    const std::int64_t wide = -5;
    const double real = 2.5;
    const std::uint8_t port[] = {0x1D, 0x4C};
    buffer.append("date", RVMSG_DATETIME, 12, date);
    buffer.append("wide", RVMSG_INT, 8, &wide);
    buffer.append("real", RVMSG_REAL, 8, &real);
    buffer.append("port", RVMSG_IPDATA, 2, port);
    const Bytes message = buffer.message();

    const Found found = find(message, "date");
    EXPECT_EQ(found.size, 12U);
    EXPECT_EQ(std::memcmp(found.scratch, date, sizeof date), 0);
    EXPECT_EQ(find(message, "wide").as<std::int64_t>(), wide);
    EXPECT_EQ(find(message, "real").as<double>(), real);
    EXPECT_EQ(std::memcmp(find(message, "port").scratch, port, 2), 0);
}

TEST(Lookup, TheFirstOfANameWins) {
    Buffer buffer;
    buffer.append("n", "first");
    buffer.append("n", "second");
    const Bytes message = buffer.message();
    EXPECT_STREQ(static_cast<const char*>(find(message, "n").data), "first");
    EXPECT_EQ(walked(message, "n"), "n:8/6 n:8/7 ");
}

TEST(Lookup, FollowsPaths) {
    Buffer inner;
    inner.append("b", "deep");
    Buffer outer;
    outer.append("a", RVMSG_MSG, 0, inner.bytes.data());
    outer.append("s", "text");
    const Bytes message = outer.message();
    EXPECT_STREQ(static_cast<const char*>(find(message, "a.b").data), "deep");
    EXPECT_EQ(find(message, "a.x").code, 11);
    EXPECT_EQ(find(message, "s.b").code, 11);
    EXPECT_EQ(find(message, "x.b").code, 11);
}

TEST(Lookup, RefusesInvalidNames) {
    const Bytes message = Buffer().message();
    for (const std::string& name :
         {std::string(), std::string("."), std::string("a."), std::string(101, 'a')}) {
        const int code = find(message, name).code;
        EXPECT_EQ(code, name == "a." ? 11 : 9) << name;
    }
    EXPECT_EQ(find(Bytes(16), "a").code, 1);
}

TEST(Lookup, FindsNamesOneLongerThanTheEncoderWrites) {
    const std::string name(100, 'n');
    EXPECT_EQ(find(messageOf(fieldOf(name, {RVMSG_INT, 1, 7})), name).as<std::int8_t>(), 7);
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
    Bytes message =
        messageOf(fieldOf("i", {RVMSG_INT, 3, 1, 2, 3}) + fieldOf("j", {RVMSG_INT, 1, 1}));
    EXPECT_EQ(walked(message), "i:0/0- j:11/1 ");
    EXPECT_EQ(find(message, "i").code, 10);
    const RvMsg wrapped(static_cast<rvmsg_Msg>(message.data()));
    const std::unique_ptr<RvMsgIterator> fields(wrapped.newIterator());
    EXPECT_EQ(fields->next(), nullptr);
    EXPECT_EQ(fields->next(), nullptr);
}
