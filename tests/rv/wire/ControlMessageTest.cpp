#include "rv/wire/ControlMessage.h"

#include "rv/error/rvCodes.h"
#include "tests/support/LinkEnd.h"

namespace kvx::wire {
namespace {

using Stream = std::vector<std::uint8_t>;

// "name:type name:type ...", in the order in which the fields stand in the message.
std::string shape(Bytes message) {
    std::string text;
    FieldCursor cursor(message);
    WireField field;
    auto step = cursor.next(field);
    for (; step == FieldCursor::Step::kField; step = cursor.next(field)) {
        text += std::string(field.name) + ':' + std::to_string(field.type) + ' ';
    }
    EXPECT_EQ(step, FieldCursor::Step::kEnd);
    return text;
}

std::string printed(const Built& built) {
    char text[500] = "";
    FILE* const stream = fmemopen(text, sizeof text, "w");
    rvmsg_PrintMsg(built.message.bytes.get(), stream);
    std::fclose(stream);
    return text;
}

TEST(InitMessage, HasItsFieldsInOrderWithAndWithoutSession) {
    InitFields fields{"joe", nullptr, "7500", "lan", nullptr, {53, "KVX", nullptr, 2, 3}};
    const Built first = buildInit(fields);
    ASSERT_EQ(first.code, 0);
    EXPECT_EQ(first.message.capacity, 1000U);
    EXPECT_EQ(printed(first),
              "{ mtype=\"I\" userid=\"joe\" service=\"7500\" network=\"lan\" vmaj=5 vmin=3 vupd=2 "
              "fid=53 fname=\"KVX\" fkey=2 fflags=3}");
    fields.session = "7F000001.1";
    fields.control = "_INBOX.7F000001.1.1";
    fields.flavour.ticket = "t";
    const Built second = buildInit(fields);
    EXPECT_EQ(shape(second.message.view()),
              "mtype:8 userid:8 session:8 service:8 network:8 control:8 vmaj:11 vmin:11 vupd:11 "
              "fid:11 fname:8 ftkt:8 fkey:11 fflags:11 ");
    const Init read = readInit(second.message.view());
    EXPECT_EQ(read.session, "7F000001.1");
    EXPECT_EQ(read.service, "7500");
    EXPECT_EQ(read.network, "lan");
    EXPECT_EQ(read.control, "_INBOX.7F000001.1.1");
    const std::string longText(2000, 'x');
    EXPECT_EQ(buildInit({"joe", nullptr, longText.c_str(), "", nullptr, {}}).code, 8);
}

TEST(ListenMessage, CarriesReturnAndFlavourOnlyWhenThereAreAny) {
    const Stream encoded = test::encodedSubject("A.B");
    EXPECT_EQ(shape(buildListen(encoded, nullptr, 0).message.view()), "mtype:8 sub:2 ");
    EXPECT_EQ(shape(buildListen(encoded, "_INBOX.a.1", 53).message.view()),
              "mtype:8 sub:2 return:8 fid:11 ");
    const Built cancel = buildCancel(encoded, 53);
    EXPECT_EQ(shape(cancel.message.view()), "mtype:8 sub:2 fid:11 ");
    EXPECT_EQ(readRouting(cancel.message.view()).type, MessageType::Cancel);
}

TEST(DataMessage, BufferHasExactlyTheSizeThatItsPartsCallFor) {
    const Stream encoded = test::encodedSubject("A.B");
    const Built plain = buildData(encoded, nullptr, 0, {});
    EXPECT_EQ(plain.message.capacity, 2 + 22 + encoded.size() + 12 + 16);
    EXPECT_EQ(shape(plain.message.view()), "mtype:8 sub:2 ");
    const Built full = buildData(encoded, "_INBOX.x", 53, {RVMSG_STRING, 0, "hello"});
    EXPECT_EQ(full.message.capacity, 2 + 22 + encoded.size() + 12 + (8 + 16) + (6 + 13) + 16);
    EXPECT_EQ(shape(full.message.view()), "mtype:8 sub:2 return:8 fid:11 data:8 ");
    const std::string reply(300, 'r');
    for (const rvmsg_Size size : {1U, 119U, 120U, 29'999U, 30'000U, 100'000U}) {
        const Built built =
            buildData(encoded, reply.c_str(), 53, {RVMSG_OPAQUE, size, Stream(size, 1).data()});
        ASSERT_EQ(built.code, 0) << size;
        EXPECT_EQ(findField(built.message.view(), "data")->size, size);
    }
}

TEST(DataMessage, WorksOutOpenSizesAndRefusesWhatHasNone) {
    const Stream encoded = test::encodedSubject("A.B");
    const Built nested = buildData(encoded, nullptr, 0, {});
    const Built outer = buildData(encoded, nullptr, 0, {RVMSG_MSG, 0, nested.message.bytes.get()});
    EXPECT_EQ(outer.code, 0);
    const std::uint8_t sealed[] = {0, 0, 0, 10, 0x99, 0x55, 0xEE, 0xBB, 8, 1};
    EXPECT_EQ(buildData(encoded, nullptr, 0, {RVMSG_ENCRYPTED, 0, sealed}).code, 0);
    EXPECT_NE(buildData(encoded, nullptr, 0, {RVMSG_MSG, 0, sealed}).code, 0);
    EXPECT_EQ(buildData(encoded, nullptr, 0, {RVMSG_OPAQUE, 0, "x"}).code, 3);
    EXPECT_EQ(buildData(encoded, nullptr, 0, {RVMSG_STRING, 4, nullptr}).code, 3);
    EXPECT_EQ(buildData(encoded, nullptr, 0, {RVMSG_OPAQUE, 0xFFFFFFF0, "x"}).code, 10);
}

TEST(ReplyMessage, IsReadBackWithItsAddressOrWhatIsMissing) {
    const Reply good = readReply(buildReply(0x0100007F, 0x1234).message.view());
    EXPECT_EQ(good.code, 0);
    EXPECT_EQ(good.ipAddress, 0x0100007FU);
    EXPECT_EQ(good.ipPort, 0x1234);
    EXPECT_EQ(readReply(buildErrorReply(session_code::kServiceNotFound).message.view()).code, 16);
    EXPECT_EQ(readReply(buildCancel(test::encodedSubject("A"), 0).message.view()).code, 1);
    const std::uint32_t address = 1;
    const std::int32_t none = 0;
    const struct {
        const char* name;
        rvmsg_Type type;
        const void* data;
        int code;
    } cases[] = {{nullptr, RVMSG_NONE, nullptr, 17},
                 {"ipaddr", RVMSG_IPDATA, &address, 16},
                 {"ipaddr", RVMSG_UINT, &address, 17},
                 {"error", RVMSG_STRING, "x", 1},
                 {"error", RVMSG_INT, &none, 17}};  // no error, and no address
    for (const auto& [name, type, data, code] : cases) {
        RvMsg parts;
        if (name != nullptr) parts.append(name, type, type == RVMSG_STRING ? 0 : 4, data);
        RvMsg reply;
        reply.append("mtype", "R");
        reply.append("data", parts);
        EXPECT_EQ(readReply(test::bytesOf(reply)).code, code);
    }
}

TEST(Routing, IsReadInAnyFieldOrderAndSurvivesEveryCut) {
    const Stream encoded = test::encodedSubject("A.B");
    RvMsg odd;
    odd.append("extra", "x");
    odd.append("sub", RVMSG_SUBJECT, 0, encoded.data());
    odd.append("mtype", "D");
    const Built usual = buildData(encoded, "_INBOX.x", 1, {RVMSG_STRING, 0, "hello"});
    for (const Stream& whole : {test::bytesOf(odd), test::bytesOf(usual)}) {
        EXPECT_EQ(test::headline(whole), "D:A.B");
        for (std::size_t cut = 0; cut < whole.size(); ++cut) {
            const Stream part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut));
            const Bytes found = readRouting(part).subject;
            EXPECT_TRUE(found.empty() || found.data() + found.size() <= part.data() + part.size());
        }
    }
    RvMsg unknown;
    unknown.append("mtype", "DD");
    EXPECT_EQ(readRouting(test::bytesOf(unknown)).type, MessageType::Unknown);
    RvMsg textSubject;
    textSubject.append("mtype", "D");
    textSubject.append("sub", "A.B");
    EXPECT_EQ(test::headline(test::bytesOf(textSubject)), "D");
}

// Checked and read at once, a message is what the message functions make of it, whatever one byte
// of it becomes.
TEST(Envelope, AgreesWithTheCheckAndTheLookUps) {
    const Stream encoded = test::encodedSubject("A.B");
    const Built inner = buildData(encoded, nullptr, 0, {});
    RvMsg odd;
    odd.append("data", "early");
    odd.append("data", "late");
    odd.append("sub", RVMSG_SUBJECT, 0, encoded.data());
    const Stream wholes[] = {
        test::bytesOf(odd), test::bytesOf(buildData(encoded, "_INBOX.x", 53, {})),
        test::bytesOf(buildData(encoded, "R", 1, {RVMSG_MSG, 0, inner.message.bytes.get()}))};
    std::size_t valid = 0;
    const auto agrees = [&](const Stream& message) {
        Envelope envelope;
        const int code = openEnvelope(message, envelope);
        ASSERT_EQ(code, rvmsg_Validate(message.data(), message.size()));
        if (code != 0) return;
        ++valid;
        const void* data = nullptr;
        rvmsg_GetRaw(message.data(), "data", nullptr, nullptr, &data);
        const Bytes subject = readRouting(message).subject;
        const Envelope unchecked = readEnvelope(message);
        for (const Envelope& read : {envelope, unchecked}) {
            EXPECT_EQ(read.data.readableData(), data);
            EXPECT_EQ(read.subject.data(), subject.data());
            EXPECT_EQ(read.subject.size(), subject.size());
        }
        EXPECT_EQ(envelope.replyText(), unchecked.replyText());
    };
    for (const Stream& whole : wholes) {
        agrees(whole);
        for (std::size_t at = 0; at < whole.size(); ++at) {
            for (const unsigned flip : {1U, 4U, 0x20U, 0x80U, 0xFFU}) {
                Stream changed = whole;
                changed[at] = static_cast<std::uint8_t>(changed[at] ^ flip);
                agrees(changed);
            }
        }
    }
    EXPECT_GT(valid, std::size(wholes));
}

// A nested message holds at least its header; what stands behind a shorter one is not read.
TEST(Routing, EndsAtANestedMessageWithoutAHeader) {
    for (const std::uint8_t length : {0, 4, 7, 8}) {
        Stream message = {0, 0, 0, 0, 0x99, 0x55, 0xEE, 0xAA, 2, 'm', 0, RVMSG_MSG, 0x7A};
        Stream nested = {0, 0, 0, length, 0x99, 0x55, 0xEE, 0xAA};
        nested.resize(length);
        message.insert(message.end(), nested.begin(), nested.end());
        const Stream type = {6, 'm', 't', 'y', 'p', 'e', 0, RVMSG_STRING, 2, 'D', 0};
        message.insert(message.end(), type.begin(), type.end());
        storeBig32(message.data(), static_cast<std::uint32_t>(message.size()));
        EXPECT_EQ(readRouting(message).type, length == 8 ? MessageType::Data : MessageType::Unknown)
            << int{length};
    }
}

}  // namespace
}  // namespace kvx::wire
