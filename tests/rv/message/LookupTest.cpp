// Finding fields by name and path, and walking them all.

#include "Bytes.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"

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
