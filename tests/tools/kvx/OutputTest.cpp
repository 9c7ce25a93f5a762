// Fields, rows and services as the tool reads and shows them.

#include "tools/bus/DatumJson.h"
#include "tools/kvx/Fields.h"
#include "tools/kvx/Rows.h"
#include "tools/kvx/ServicesView.h"

namespace kvx::tool {
namespace {

std::string jsonOf(const std::vector<std::string>& fields) {
    RvMsg message;
    for (const auto& field : fields) EXPECT_EQ(appendField(message, field), "") << field;
    return bus::messageAsJson("A.B", nullptr, message);
}

TEST(Fields, CarryEveryTypeFromTextToMessageAndBack) {
    EXPECT_EQ(jsonOf({"name=edge=1", "a:i8=-128", "b:u16=65535", "c:i64=-9223372036854775808",
                      "d:u64=18446744073709551615"}),
              R"({"subject":"A.B","reply":null,"type":"message","fields":[)"
              R"({"name":"name","type":"string","value":"edge=1"},)"
              R"({"name":"a","type":"i8","value":-128},)"
              R"({"name":"b","type":"u16","value":65535},)"
              R"({"name":"c","type":"i64","value":"-9223372036854775808"},)"
              R"({"name":"d","type":"u64","value":"18446744073709551615"}]})");
    EXPECT_EQ(jsonOf({"f:f64=0.5", "y:bool=true", "i:ip=10.0.0.255", "p:port=7500", "s:subject=X.Y",
                      "h:hex=00ff", "e:hex="}),
              R"({"subject":"A.B","reply":null,"type":"message","fields":[)"
              R"({"name":"f","type":"f64","value":0.5},)"
              R"({"name":"y","type":"bool","value":true},)"
              R"({"name":"i","type":"ip","value":"10.0.0.255"},)"
              R"({"name":"p","type":"port","value":7500},)"
              R"({"name":"s","type":"subject","value":"X.Y"},)"
              R"({"name":"h","type":"opaque","value":"AP8="},)"
              R"({"name":"e","type":"opaque","value":""}]})");
}

TEST(Fields, AreRefusedWithTheCulpritNamed) {
    RvMsg message;
    for (const char* text :
         {"novalue", "a:i8=128", "a:i8=", "a:u16=-1", "a:i32=12x", "a:f64=zero", "a:bool=yes",
          "a:ip=1.2.3", "a:ip=1.2.3.4.", "a:ip=1.2.3.256", "a:port=70000", "a:hex=abc", "a:hex=zz",
          "a:subject=a..b", "a:colour=red"}) {
        const std::string problem = appendField(message, text);
        EXPECT_NE(problem.find(text), std::string::npos) << text << " -> " << problem;
    }
    EXPECT_NE(appendField(message, std::string(200, 'n') + "=1").find("name"), std::string::npos);
    EXPECT_EQ(message.size(), 8U);
}

TEST(Fields, KeepJsonValidWhateverTheBytes) {
    RvMsg message;
    const char bytes[] = "\xff\"\n";
    message.append("x", RVMSG_STRING, 4, bytes);
    EXPECT_EQ(bus::messageAsJson("S", "R", message),
              "{\"subject\":\"S\",\"reply\":\"R\",\"type\":\"message\",\"fields\":[{\"name\":\"x\","
              "\"type\":\"string\",\"value\":{\"base64\":\"/yIKAA==\"}}]}");
}

using Values = std::vector<std::pair<const char*, const char*>>;

Record record(const Values& values, long long number) {
    auto made = std::make_unique<CVekBaseRecord>();
    for (const auto& [name, value] : values) made->RRAddOrSetValue(name, new CVekAtom(value));
    if (number != 0) made->RRAddOrSetValue("n", new CVekAtom(number));
    return Record(std::move(made));
}

std::string printed(const Rows& rows, RowFormat format, bool forTerminal = false) {
    std::string text;
    rows.print(
        format, [&](std::string_view line) { text += line; }, forTerminal);
    return text;
}

TEST(Rows, PrintInEveryFormatWithMissingValuesEmpty) {
    Rows rows;
    rows.add(record({{"name", "caf\xc3\xa9"}, {"site", "a,b"}}, 5));
    rows.add(record({{"name", "\x1b[31m\""}}, 0));
    EXPECT_EQ(printed(rows, RowFormat::AsTable),
              "name    site  n\n------  ----  -\ncaf\xc3\xa9    a,b   5\n [31m\"        \n");
    EXPECT_EQ(printed(rows, RowFormat::AsJson),
              "{\"name\":\"caf\xc3\xa9\",\"site\":\"a,b\",\"n\":5}\n"
              "{\"name\":\"\\u001b[31m\\\"\",\"site\":null,\"n\":null}\n");
    EXPECT_EQ(printed(rows, RowFormat::AsCsv),
              "name,site,n\ncaf\xc3\xa9,\"a,b\",5\n\"\x1b[31m\"\"\",,\n");
    EXPECT_EQ(printed(rows, RowFormat::AsCsv, true).find('\x1b'), std::string::npos);
}

TEST(Rows, HaveTheColumnsThatWereSelectedWhateverTheyHold) {
    Rows rows(selectedColumns("SELECT n, Site , \"from\",n From devices where x = 1"));
    EXPECT_EQ(printed(rows, RowFormat::AsCsv), "n,Site,from,n\n");
    EXPECT_EQ(printed(rows, RowFormat::AsTable), "n  Site  from  n\n-  ----  ----  -\n");
    EXPECT_EQ(printed(rows, RowFormat::AsJson), "");
    rows.add(record({{"more", "x"}, {"site", "here"}}, 5));
    rows.add(record({{"from", "f"}}, 0));
    EXPECT_EQ(printed(rows, RowFormat::AsCsv), "n,Site,from,n\n5,here,,5\n,,f,\n");
    EXPECT_EQ(printed(rows, RowFormat::AsJson),
              "{\"n\":5,\"Site\":\"here\",\"from\":null}\n"
              "{\"n\":null,\"Site\":null,\"from\":\"f\"}\n");
}

TEST(Rows, TakeTheColumnsFromTheRowsWhereTheQueryNamesNone) {
    for (const char* query : {"select * from t", "*", "", "selecta from t", "select a b from t",
                              "select a, from", "select \"a from t", "select count(x) from t"}) {
        EXPECT_TRUE(selectedColumns(query).empty()) << query;
    }
    using Names = std::vector<std::string>;
    EXPECT_EQ(selectedColumns("select [a b],`c``d`, t.e\nfrom t"), (Names{"a b", "c`d", "t.e"}));
}

beats::Service service(const std::string& name, long long pid, beats::Milliseconds lastHeard) {
    return {{name, "NET",
             "h\x1b"
             "1",
             pid, false},
            0,
            lastHeard,
            1,
            0,
            lastHeard};
}

TEST(ServicesView, AlignsColumnsAndMarksWhatIsMissing) {
    std::vector<beats::Service> all = {service("Class", 7, 29000), service("Model", 4711, 0)};
    all[0].member = beats::Member{
        .group = "g.Class.NET.2", .awaitedSince = 29000, .roleSince = 9000, .isPrimary = true};
    const auto lines = serviceLines(all, 30000, Colour::Missing);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0],
              "SERVICE  DOMAIN  HOST  PID   GROUP    TIER  ROLE     FOR     AGE   MISSED");
    EXPECT_EQ(lines[1], "Class    NET     h 1   7     g.Class  2     primary  > 21 s  1 s   0");
    EXPECT_EQ(
        lines[2],
        "\033[31mModel    NET     h 1   4711  -        -     backup   -       30 s  2\033[0m");
    EXPECT_EQ(serviceLines(all, 30000, Colour::Never)[2].front(), 'M');
    EXPECT_TRUE(answerLines({}).empty());
    EXPECT_EQ(fittingLines(lines, 4), lines);
    EXPECT_EQ(fittingLines(lines, 3), (std::vector{lines[0], std::string("... and 2 more")}));
}

TEST(ServicesView, TellsOnlyWhatChanged) {
    using Positions = std::vector<std::size_t>;
    ServiceChanges changes;
    std::vector<beats::Service> all = {service("Class", 7, 0), service("Model", 8, 5000)};
    EXPECT_EQ(changes.since(all, 6000), (Positions{0, 1}));
    EXPECT_EQ(changes.since(all, 10000), Positions{});
    EXPECT_EQ(changes.since(all, 12000), Positions{0});  // silent
    EXPECT_EQ(changes.since(all, 14000), Positions{});
    all[0].lastHeard = all[0].awaitedSince = 15000;
    all[1].beat.hasBeenPrimary = true;
    EXPECT_EQ(changes.since(all, 15500), (Positions{0, 1}));  // back, and another role
    all.erase(all.begin());
    EXPECT_EQ(changes.since(all, 15500), Positions{});
}

}  // namespace
}  // namespace kvx::tool
