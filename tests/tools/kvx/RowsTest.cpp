#include "tools/kvx/Rows.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kvx::tool {
namespace {

using Values = std::vector<std::pair<const char*, const char*>>;

std::unique_ptr<CVekBaseRecord> record(const Values& values, long long number) {
    auto made = std::make_unique<CVekBaseRecord>();
    for (const auto& [name, value] : values) made->RRAddOrSetValue(name, new CVekAtom(value));
    if (number != 0) made->RRAddOrSetValue("n", new CVekAtom(number));
    return made;
}

std::string printed(const Rows& rows, RowFormat format) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    rows.print(format, out);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(Rows, PrintInEveryFormatWithMissingValuesEmpty) {
    std::vector<std::unique_ptr<CVekBaseRecord>> records;
    records.push_back(record({{"name", "caf\xc3\xa9"}, {"site", "a,b"}}, 5));
    records.push_back(record({{"name", "\x1b[31m\""}}, 0));
    Rows rows;
    rows.add(std::move(records));
    EXPECT_EQ(printed(rows, RowFormat::Table),
              "name    site  n\n------  ----  -\ncaf\xc3\xa9    a,b   5\n [31m\"        \n");
    EXPECT_EQ(printed(rows, RowFormat::Json),
              "{\"name\":\"caf\xc3\xa9\",\"site\":\"a,b\",\"n\":5}\n"
              "{\"name\":\"\\u001b[31m\\\"\",\"site\":null,\"n\":null}\n");
    EXPECT_EQ(printed(rows, RowFormat::Csv),
              "name,site,n\ncaf\xc3\xa9,\"a,b\",5\n\"\x1b[31m\"\"\",,\n");
}

}  // namespace
}  // namespace kvx::tool
