// Messages that a broken or hostile peer might send. Every buffer is an exact heap block, so that a
// sanitizer build sees the first byte read past its end.

#include "Bytes.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"

namespace {

int validate(const Bytes& message) {
    return rvmsg_Validate(message.data(), message.size());
}

Bytes around(const Bytes& message) {
    return messageOf(fieldOf("n", Bytes{RVMSG_MSG, 0x7A} + message));
}

int lookUp(const Bytes& message, const char* name) {
    alignas(8) unsigned char scratch[16];
    return rvmsg_Get(scratch, message.data(), name, nullptr, nullptr, nullptr);
}

int count(const char*, rvmsg_Type, rvmsg_Size, rvmsg_Data, void* counter) {
    ++*static_cast<int*>(counter);
    return 0;
}

const Bytes kGood = fieldOf("good", {RVMSG_INT, 1, 1});

// Fields with something wrong inside.
std::vector<std::pair<const char*, Bytes>> brokenFields() {
    return {
        {"a name that runs past the end", {200, 'n'}},
        {"a name without its zero", {2, 'a', 'b', RVMSG_INT, 1, 1}},
        {"no type", {2, 'a', 0}},
        {"no size", fieldOf("a", {RVMSG_INT})},
        {"data past the end", fieldOf("a", {RVMSG_OPAQUE, 5, 1, 2})},
        {"a reserved size form", fieldOf("a", {RVMSG_OPAQUE, 0x78, 1})},
        {"another reserved size form", fieldOf("a", {RVMSG_OPAQUE, 0xFF, 1})},
        {"a medium size below its own bytes", fieldOf("a", {RVMSG_OPAQUE, 0x79, 0, 1})},
        {"a long size past the end", fieldOf("a", Bytes{RVMSG_STRING, 0x7A} + big32(0xFFFFFFFF))},
        {"a long size below its own bytes", fieldOf("a", Bytes{RVMSG_STRING, 0x7A} + big32(3))},
        {"no value stored", fieldOf("a", {RVMSG_BADDATA, 0})},
        {"nothing stored", fieldOf("a", {RVMSG_NONE, 0})},
        {"a nested message past the end",
         fieldOf("a", Bytes{RVMSG_MSG, 0x7A} + big32(9) + big32(0x9955EEAA))},
        {"a nested message below its header",
         fieldOf("a", Bytes{RVMSG_MSG, 0x7A} + big32(7) + big32(0x9955EEAA))},
        {"a nested message in the short form",
         fieldOf("a", {RVMSG_MSG, 8, 0, 0, 0, 0, 0, 0, 0, 0})},
        {"a sealed block without its type",
         fieldOf("a", Bytes{RVMSG_ENCRYPTED, 0x7A} + big32(8) + big32(0x9955EEBB))},
        {"a subject past the end", fieldOf("a", {RVMSG_SUBJECT, 0x79, 0, 9, 1})},
        {"a subject without its count", fieldOf("a", {RVMSG_SUBJECT, 0x79, 0, 2})},
    };
}

}  // namespace

TEST(BrokenFields, AreRefusedAndEndWhatReadersSee) {
    for (const auto& [what, field] : brokenFields()) {
        SCOPED_TRACE(what);
        Bytes message = messageOf(kGood + field);
        EXPECT_EQ(validate(message), 10);
        EXPECT_EQ(validate(around(messageOf(field))), 10);
        EXPECT_EQ(lookUp(message, "good"), 0);
        EXPECT_EQ(lookUp(message, "a"), 10);
        int fields = 0;
        EXPECT_EQ(rvmsg_Iterate(message.data(), nullptr, count, &fields), 10);
        EXPECT_EQ(fields, 1);
        EXPECT_EQ(printed(message.data()), "{ good=1}");
        const RvMsg wrapped(static_cast<rvmsg_Msg>(message.data()));
        const std::unique_ptr<RvMsgIterator> walk(wrapped.newIterator());
        EXPECT_NE(walk->next(), nullptr);
        EXPECT_EQ(walk->next(), nullptr);
        EXPECT_EQ(walk->next(), nullptr);
    }
}

TEST(Validation, HoldsHeadersAndSizesAgainstWhatIsThere) {
    const std::pair<int, Bytes> cases[] = {
        {0, messageOf({})},
        {1, {0, 0, 0, 8, 0, 0, 0, 0}},
        {10, messageOf({}) + Bytes{0}},
        {10, {0, 0, 0}},
        {10, messageOf(kGood + Bytes{0})},
        {10, around(big32(8) + big32(0x9955EEBB))},
        {10, messageOf(fieldOf("d", {RVMSG_DATETIME, 4, 0, 0, 0, 0}))},
        {10, messageOf(fieldOf("b", {RVMSG_BOOLEAN, 2, 0, 1}))},
        {10, messageOf(fieldOf("i", {RVMSG_INT, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0}))},
        {0, messageOf(fieldOf("i", {RVMSG_INT, 3, 1, 2, 3}))},
        {0, messageOf(fieldOf("longer form", {RVMSG_INT, 0x79, 0, 3, 1}))},
        {0, messageOf(fieldOf("unlisted", {5}))},
    };
    for (const auto& [code, message] : cases)
        EXPECT_EQ(validate(message), code) << testing::PrintToString(message);
    EXPECT_EQ(rvmsg_Validate(nullptr, 8), 10);
}

TEST(Validation, Allows32LevelsOfNestingAndNoStack) {
    Bytes nested = messageOf({});
    for (int levels = 0; levels < 32; ++levels) nested = around(nested);
    EXPECT_EQ(validate(nested), 0);
    EXPECT_EQ(validate(around(nested)), 10);
    // A hundred thousand levels of 11 bytes, outermost first.
    Bytes deep;
    for (std::uint32_t below = 100000; below-- > 0;) {
        deep = std::move(deep) + big32(8 + below * 11) + big32(0x9955EEAA);
        if (below > 0) deep.insert(deep.end(), {0, RVMSG_MSG, 0x7A});
    }
    EXPECT_EQ(validate(deep), 10);
    EXPECT_EQ(printed(deep.data()).substr(0, 6), "{ { { ");
}

TEST(Readers, TakeATextWithoutBytesAsEmpty) {
    Bytes bytes = messageOf(fieldOf("t", {RVMSG_STRING, 0}));
    const RvMsg message(static_cast<rvmsg_Msg>(bytes.data()));
    char text[8] = "unset";
    EXPECT_TRUE(message.get("t", text, sizeof text) == 0);
    EXPECT_STREQ(text, "");
    RvDatum found;
    ASSERT_TRUE(message.get("t", found) == 0);
    EXPECT_STREQ(static_cast<const char*>(RvDatum(found).data()), "");
    EXPECT_EQ(printed(bytes.data()), "{ t=\"\"}");
}

TEST(SealedBlocks, AreOpenedByTheCallersRoutine) {
    const Bytes block = big32(11) + big32(0x9955EEBB) + Bytes{RVMSG_STRING, 'X', 'Y'};
    const auto unseal = [](rvmsg_Data payload, rvmsg_Size length, rvmsg_Size* size,
                           void* seen) -> rvmsg_Data {
        *static_cast<std::string*>(seen) = std::string(static_cast<const char*>(payload), length);
        *size = 5;
        return length == 0 ? nullptr : "open";
    };
    std::string seen;
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    EXPECT_EQ(rvmsg_Unseal(block.data(), 11, unseal, &seen, &type, &size, &data), 0);
    EXPECT_EQ(seen, "XY");
    EXPECT_EQ(type, RVMSG_STRING);
    EXPECT_STREQ(static_cast<const char*>(data), "open");

    const Bytes empty = big32(9) + big32(0x9955EEBB) + Bytes{RVMSG_STRING};
    EXPECT_EQ(rvmsg_Unseal(empty.data(), 9, unseal, &seen, &type, &size, &data), 10);
    EXPECT_EQ(rvmsg_Unseal(block.data(), 10, unseal, &seen, &type, &size, &data), 10);
    const Bytes message = messageOf({1, 2, 3});
    EXPECT_EQ(rvmsg_Unseal(message.data(), 11, unseal, &seen, &type, &size, &data), 10);
}
