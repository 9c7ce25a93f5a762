#include "tools/kvx/Rows.h"

namespace kvx::tool {
namespace {

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
    EXPECT_EQ(printed(rows, RowFormat::Table),
              "name    site  n\n------  ----  -\ncaf\xc3\xa9    a,b   5\n [31m\"        \n");
    EXPECT_EQ(printed(rows, RowFormat::Json),
              "{\"name\":\"caf\xc3\xa9\",\"site\":\"a,b\",\"n\":5}\n"
              "{\"name\":\"\\u001b[31m\\\"\",\"site\":null,\"n\":null}\n");
    EXPECT_EQ(printed(rows, RowFormat::Csv),
              "name,site,n\ncaf\xc3\xa9,\"a,b\",5\n\"\x1b[31m\"\"\",,\n");
    EXPECT_EQ(printed(rows, RowFormat::Csv, true).find('\x1b'), std::string::npos);
}

TEST(Rows, HaveTheColumnsThatWereSelectedWhateverTheyHold) {
    Rows rows(selectedColumns("SELECT n, Site , \"from\",n From devices where x = 1"));
    EXPECT_EQ(printed(rows, RowFormat::Csv), "n,Site,from,n\n");
    EXPECT_EQ(printed(rows, RowFormat::Table), "n  Site  from  n\n-  ----  ----  -\n");
    EXPECT_EQ(printed(rows, RowFormat::Json), "");
    rows.add(record({{"more", "x"}, {"site", "here"}}, 5));
    rows.add(record({{"from", "f"}}, 0));
    EXPECT_EQ(printed(rows, RowFormat::Csv), "n,Site,from,n\n5,here,,5\n,,f,\n");
    EXPECT_EQ(printed(rows, RowFormat::Json),
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

}  // namespace
}  // namespace kvx::tool
