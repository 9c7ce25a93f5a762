#include "tools/kvx/Rows.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kvx::tool {
namespace {

using Values = std::vector<std::pair<const char*, const char*>>;

// A byte-string atom as a decoded packet holds it.
CVekAtom* encoded(const Values& values, long long number) {
    CVekBaseRecord record;
    for (const auto& [name, value] : values) record.RRAddOrSetValue(name, new CVekAtom(value));
    if (number != 0) record.RRAddOrSetValue("n", new CVekAtom(number));
    unsigned char* bytes = nullptr;
    int length = 0;
    record.ROMEncode(&bytes, &length);
    return new CVekAtom(bytes, length);
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
    CVekBag bag;
    bag.RBAdd(encoded({{"name", "caf\xc3\xa9"}, {"site", "a,b"}}, 5));
    bag.RBAdd(encoded({{"name", "\x1b[31m\""}}, 0));
    Rows rows;
    EXPECT_EQ(rows.add(bag), 0U);
    EXPECT_EQ(printed(rows, RowFormat::Table),
              "name    site  n\n------  ----  -\ncaf\xc3\xa9    a,b   5\n [31m\"        \n");
    EXPECT_EQ(printed(rows, RowFormat::Json),
              "{\"name\":\"caf\xc3\xa9\",\"site\":\"a,b\",\"n\":5}\n"
              "{\"name\":\"\\u001b[31m\\\"\",\"site\":null,\"n\":null}\n");
    EXPECT_EQ(printed(rows, RowFormat::Csv),
              "name,site,n\ncaf\xc3\xa9,\"a,b\",5\n\"\x1b[31m\"\"\",,\n");
}

TEST(Rows, CountWhatIsNoRecord) {
    CVekBag bag;
    const unsigned char garbage[] = {0xc1, 0x00};
    bag.RBAdd(new CVekAtom(garbage, 2));
    bag.RBAdd(encoded({{"a", "b"}}, 0));
    Rows rows;
    EXPECT_EQ(rows.add(bag), 1U);
    EXPECT_EQ(rows.size(), 1U);
}

}  // namespace
}  // namespace kvx::tool
