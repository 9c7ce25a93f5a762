#include "examples/modeld/oql/Parse.h"

namespace modeld::oql {
namespace {

Query parsed(std::string_view text) {
    auto result = parse(text);
    if (auto* error = std::get_if<SyntaxError>(&result)) {
        ADD_FAILURE() << text << ": " << error->message << " at " << error->position;
        return {};
    }
    return std::move(std::get<Query>(result));
}

SyntaxError refused(std::string_view text) {
    auto result = parse(text);
    if (auto* error = std::get_if<SyntaxError>(&result)) return *error;
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
}

TEST(Parse, TakesQuotedNamesWhereNamesStand) {
    const Query query = parsed(
        R"(select "order", Größe, "a ""b""" from "from" where "limit" = "limit" order by "by" desc)");
    ASSERT_EQ(query.fields.size(), 3U);
    EXPECT_EQ(query.fields[0].text, "order");
    EXPECT_EQ(query.fields[0].position, 8U);
    EXPECT_EQ(query.fields[1].text, "Größe");
    EXPECT_EQ(query.fields[2].text, "a \"b\"");
    EXPECT_EQ(query.table.text, "from");
    const auto& compare = std::get<Compare>(query.where->node);
    EXPECT_EQ(compare.field.text, "limit");
    EXPECT_EQ(std::get<std::string>(compare.value), "limit");
    EXPECT_EQ(query.order.at(0).field.text, "by");
    EXPECT_EQ(refused("select 'order' from t").message, "unexpected 'order', expected * or a name");
}

TEST(Parse, NamesTheCulpritAndItsPlace) {
    const std::string head = "select * from t where a ";
    EXPECT_EQ(refused("selct * from t").position, 1U);
    EXPECT_EQ(refused("select * form t").position, 10U);
    EXPECT_EQ(refused("select * form t").message, "unexpected 'form', expected from");
    EXPECT_EQ(refused(head + "= 'open").message, "this text has no closing quote");
    EXPECT_EQ(refused(head + "= 'open").position, 27U);
    EXPECT_EQ(refused(head + "@ 1").message, "unexpected character '@'");
    EXPECT_EQ(refused("select * from t limit -1").message, "a limit cannot be negative");
    EXPECT_EQ(refused(head + "= 99999999999999999999").message, "this number is too large");
    EXPECT_EQ(refused("").position, 1U);
    EXPECT_EQ(refused("select * from t; select * from t").position, 18U);
    EXPECT_EQ(refused(std::string_view("select \0 from t", 15)).message, "unexpected byte 0x00");
    EXPECT_EQ(refused("select gr\xf6\xdf from t").message, "unexpected byte 0xf6");
    EXPECT_LT(refused("select * from t " + repeated("é", 9000)).message.size(), 150U);
}

TEST(Parse, KeepsItsLimitsOnAnyText) {
    const std::string head = "select * from t where ";
    parsed(head + repeated("(", kMaxNesting) + "a = 1" + repeated(")", kMaxNesting));
    parsed(head + repeated("a = 1 or ", kMaxComparisons - 1) + "a = 1");
    for (const auto& [where, reason] : std::initializer_list<std::pair<std::string, const char*>>{
             {repeated("(", 20000), "nested"},
             {repeated("not ", 10000) + "a = 1", "nested"},
             {repeated("a = 1 or ", kMaxComparisons) + "a = 1", "500"},
             {"a = '" + repeated("x", kMaxQueryBytes) + "'", "longer"}}) {
        EXPECT_NE(refused(head + where).message.find(reason), std::string::npos) << reason;
    }
}

}  // namespace
}  // namespace modeld::oql
