// Values, records and messages: what goes in comes out, of the right kind.

#include <cmath>

#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/ServiceName.h"

namespace kvx {
namespace {

constexpr auto kLargest = std::numeric_limits<std::int64_t>::max();
const std::array<std::byte, 3> kBytes{std::byte{0}, std::byte{0xab}, std::byte{0xff}};

TEST(Value, IsReadAsWhatItFitsOnly) {
    EXPECT_EQ(Value(300).as<std::uint8_t>(), std::nullopt);
    EXPECT_EQ(Value(-1).as<unsigned>(), std::nullopt);
    EXPECT_EQ(Value(255).as<std::uint8_t>(), 255);
    EXPECT_EQ(Value(7).as<double>(), 7.0);
    EXPECT_EQ(Value("7").as<int>(), 7);
    EXPECT_EQ(Value("7x").as<int>(), std::nullopt);
    EXPECT_EQ(Value("").as<int>(), std::nullopt);
    EXPECT_EQ(Value("2.5").as<double>(), 2.5);
    EXPECT_EQ(Value(2.5).as<int>(), std::nullopt);
    EXPECT_EQ(Value(2).as<bool>(), std::nullopt);
    EXPECT_EQ(Value(1).as<bool>(), true);
    EXPECT_EQ(Value(true).as<int>(), 1);
    EXPECT_EQ(Value("x").as<Value::Bytes>(), std::nullopt);
    EXPECT_EQ(Value().as<std::string>(), std::nullopt);
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).as<std::int64_t>(), kLargest);
    EXPECT_EQ(Value(static_cast<const char*>(nullptr)).as<std::string>(), "");
    EXPECT_EQ(Value(Value::Bytes(kBytes)).toString(), "00abff");
}

TEST(Value, GivesNoNumberThatDoesNotFit) {
    EXPECT_EQ(Value(1e300).as<float>(), std::nullopt);
    EXPECT_EQ(Value(0.5).as<float>(), 0.5F);
    EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).as<float>(),
              std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(*Value(std::nan("")).as<float>()));
    EXPECT_TRUE(std::isnan(*Record{{"x", std::nan("")}}.get<double>("x")));
    EXPECT_EQ(Value("9223372036854775808").as<std::int64_t>(), std::nullopt);
    EXPECT_EQ(Value(std::numeric_limits<std::int64_t>::min()).as<std::uint64_t>(), std::nullopt);
}

TEST(Record, KeepsItsFieldsThroughItsEncoding) {
    const Record record{{"name", "core-1"}, {"mtu", 1500},        {"octets", kLargest},
                        {"load", 0.1},      {"up", true},         {"id", Value::Bytes(kBytes)},
                        {"none", Value()},  {"nested", Message()}};
    unsigned char* bytes = nullptr;
    int length = 0;
    ASSERT_EQ(record.base().ROMEncode(&bytes, &length), 1);
    const Text owned(reinterpret_cast<char*>(bytes));
    const auto copy =
        Record::decode(std::as_bytes(std::span(bytes, static_cast<std::size_t>(length))));
    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, record);
    EXPECT_EQ(copy->size(), 6U) << "a record holds neither nothing nor a message";
    EXPECT_EQ(copy->get<double>("load"), 0.1);
    EXPECT_EQ(copy->get<std::int64_t>("octets"), kLargest);
    EXPECT_EQ(copy->get<bool>("up"), true);
    EXPECT_EQ(copy->toString(),
              "name=\"core-1\" mtu=1500 octets=9223372036854775807 load=\"0.1\" "
              "up=1 id=00abff");
    EXPECT_FALSE(Record::decode(std::as_bytes(std::span("no record"))));
}

TEST(Record, IsChangedInPlaceAndCopiedDeep) {
    Record record{{"a", 1}, {"b", 2}};
    const Record before = record;
    EXPECT_TRUE(record.set("a", "one"));
    EXPECT_EQ(record.at(0), (Field{"a", "one"}));
    EXPECT_EQ(before["a"], Value(1));
    EXPECT_TRUE(record.set("c", record["a"])) << "a value that lies in the record";
    EXPECT_EQ(record.get<std::string>("c"), "one");
    EXPECT_EQ(record.set(std::string_view("a\0b", 3), 1).error().code, Errc::InvalidArgument);
    EXPECT_EQ(record.set("z", std::string_view("a\0b", 3)).error().code, Errc::InvalidArgument);
    EXPECT_FALSE(record.contains("z"));
    EXPECT_EQ(Record().size(), 0U);
    EXPECT_TRUE(Record()["a"].isNull());
}

TEST(Message, HoldsEveryKindOfValueInOrder) {
    const Message inner{{"x", 1}};
    const Message message{{"text", "t"},   {"small", -3},  {"large", kLargest},
                          {"real", 2.5},   {"flag", true}, {"bytes", Value::Bytes(kBytes)},
                          {"inner", inner}};
    const Message copy(message.base());
    EXPECT_EQ(copy, message);
    std::string names;
    for (const Field& field : copy) names.append(field.name) += ' ';
    EXPECT_EQ(names, "text small large real flag bytes inner ");
    EXPECT_EQ(copy.get<std::string>("text"), "t");
    EXPECT_EQ(copy.get<std::int64_t>("large"), kLargest);
    EXPECT_EQ(copy.get<int>("small"), -3);
    EXPECT_EQ(copy.get<bool>("flag"), true);
    EXPECT_EQ(copy.get<double>("real"), 2.5);
    EXPECT_EQ(copy["bytes"], Value(Value::Bytes(kBytes)));
    EXPECT_EQ(copy.get<Message>("inner"), inner);
    EXPECT_EQ(copy.get<int>("inner.x"), 1);
    EXPECT_TRUE(copy["absent"].isNull());
    EXPECT_TRUE(Message().empty());
    EXPECT_EQ(Message().add("a.b", 1).error().code, Errc::InvalidArgument);
    EXPECT_EQ(Message().add("a", Value()).error().code, Errc::InvalidArgument);
}

TEST(Record, HoldsManyFieldsAndWalksThemAtOnce) {
    Record record;
    for (int i = 0; i < 65'533; ++i) ASSERT_TRUE(record.set(std::to_string(i), i));
    std::int64_t sum = 0;
    for (const Field& field : record) sum += *field.value.as<int>();
    EXPECT_EQ(sum, 65'533LL * 65'532 / 2);
    EXPECT_TRUE(record.set("", "\xff\xfe"));
    EXPECT_EQ(record.get<std::string>(""), "\xff\xfe");
    EXPECT_TRUE(record.set("empty", Value::Bytes()));
    EXPECT_EQ(record["empty"], Value(Value::Bytes()));
    EXPECT_EQ(record.set("one more", 1).error().code, Errc::InvalidArgument) << "nor is it encoded";
}

TEST(Message, TakesWhatLiesInItAndNothingElse) {
    Message message{{"bytes", Value::Bytes(kBytes)}, {"text", "t"}, {"none", Value::Bytes()}};
    EXPECT_EQ(message["none"], Value(Value::Bytes()));
    for (int i = 0; i < 12; ++i) ASSERT_TRUE(message.add("self", message));
    ASSERT_TRUE(message.add("copy", message["bytes"]));
    ASSERT_TRUE(message.add("text", message["text"]));
    EXPECT_EQ(message["copy"], Value(Value::Bytes(kBytes)));
    EXPECT_TRUE(message[std::string_view("text\0x", 6)].isNull());
    const Message* const same = &message;
    message = *same;
    EXPECT_EQ(message.get<std::string>("text"), "t");
    Message deep;
    for (int i = 0; i < 200; ++i) deep = Message{{"m", deep}};
    EXPECT_FALSE(deep.toString().empty());
}

TEST(ServiceName, FollowsTheSystemsTableAndItsPattern) {
    const auto known = ServiceName::of("vekcomments");
    ASSERT_TRUE(known);
    EXPECT_EQ(known->text(), "Comments");
    EXPECT_EQ(known->querySubject(), "ZEMBRALIX.3.0.CMNT.QUERY");
    const auto own = ServiceName::of("Links");
    ASSERT_TRUE(own);
    EXPECT_EQ(own->text(), "Links");
    EXPECT_EQ(own->querySubject(), "ZEMBRALIX.3.0.LINKS.QUERY");
    EXPECT_EQ(own->notifySubject(), "ZEMBRALIX.3.0.LINKS.NOTIFY");
    for (const std::string& name : {std::string(), std::string("a.b"), std::string("a b"),
                                    std::string("*"), std::string(100, 'x')}) {
        EXPECT_EQ(ServiceName::of(name).error().code, Errc::InvalidArgument) << name;
    }
}

}  // namespace
}  // namespace kvx
