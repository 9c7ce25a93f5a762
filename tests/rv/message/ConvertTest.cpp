// Conversions of decoded values, the deliberate oddities included.

#include <ctime>

#include "Bytes.h"

namespace {

/// A conversion's code and what it left in its target.
template <class Value>
struct Converted {
    Converted(rvmsg_Type to, rvmsg_Type from, rvmsg_Size size, const void* source) {
        std::memset(&value, 0xAB, sizeof value);
        code = rvmsg_Convert(to, sizeof value, &value, from, size, source);
    }
    int code;
    Value value;
};

template <class Target, class Source>
Converted<Target> convert(rvmsg_Type to, rvmsg_Type from, Source source) {
    return {to, from, sizeof source, &source};
}

template <class Target>
Converted<Target> parse(rvmsg_Type to, const char* text, rvmsg_Size size = 0) {
    return {to, RVMSG_STRING, size, text};
}

// The text form, or the code as text when there is none.
template <class Source>
std::string text(rvmsg_Type from, Source source, rvmsg_Size capacity = 64) {
    char target[64];
    const int code = rvmsg_Convert(RVMSG_STRING, capacity, target, from, sizeof source, &source);
    return code == 0 ? std::string(target) : "code " + std::to_string(code);
}

}  // namespace

TEST(Convert, IntegersAreCutToTheTargetsWidthAndRealsOutOfRangeAreDefined) {
    EXPECT_EQ((convert<std::int16_t>(RVMSG_INT, RVMSG_INT, std::int32_t{0x12345678}).value),
              0x5678);
    EXPECT_EQ((convert<std::int32_t>(RVMSG_INT, RVMSG_INT, std::int8_t{-3}).value), -3);
    EXPECT_EQ((convert<std::uint32_t>(RVMSG_UINT, RVMSG_UINT, std::uint8_t{253}).value), 253U);
    EXPECT_EQ((convert<std::int32_t>(RVMSG_INT, RVMSG_REAL, -2.9).value), -2);
    EXPECT_EQ((convert<std::uint8_t>(RVMSG_BOOLEAN, RVMSG_INT, std::int16_t{256}).value), 1);
    EXPECT_EQ((convert<std::int64_t>(RVMSG_INT, RVMSG_INT, std::int32_t{1}).code), 3);
    for (const double value : {1e300, -1e300, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ((convert<std::int32_t>(RVMSG_INT, RVMSG_REAL, value).code), 0);
}

TEST(Convert, EightByteIntegersKeepTheirOddities) {
    const std::int64_t wide = 0x0123456789ABCDEF;
    EXPECT_EQ(text(RVMSG_INT, wide, 16), "89abcdef01234567");
    EXPECT_EQ(text(RVMSG_INT, wide, 15), "code 3");
    for (const rvmsg_Type to : {RVMSG_INT, RVMSG_UINT}) {
        const auto narrow = convert<std::uint32_t>(to, RVMSG_INT, wide);
        EXPECT_EQ(narrow.code, to == RVMSG_INT ? 0 : 3);
        EXPECT_EQ(narrow.value, 0x89ABCDEFU);
    }
    const auto copied = convert<std::int64_t>(RVMSG_INT, RVMSG_INT, wide);
    EXPECT_EQ(copied.code, 3);
    EXPECT_EQ(copied.value, wide);
    EXPECT_EQ((convert<double>(RVMSG_REAL, RVMSG_INT, std::int64_t{-4}).value), -4.0);
}

TEST(Convert, WritesNumbersAsTextWhenTheCapacityIsThere) {
    EXPECT_EQ(text(RVMSG_INT, std::int8_t{-128}, 5), "-128");
    EXPECT_EQ(text(RVMSG_INT, std::int8_t{1}, 4), "code 3");
    EXPECT_EQ(text(RVMSG_UINT, std::uint16_t{65535}, 7), "65535");
    EXPECT_EQ(text(RVMSG_INT, std::int16_t{1}, 6), "code 3");
    EXPECT_EQ(text(RVMSG_INT, std::int32_t{-2147483647}, 12), "-2147483647");
    EXPECT_EQ(text(RVMSG_UINT, std::uint32_t{4294967295}, 12), "4294967295");
    EXPECT_EQ(text(RVMSG_UINT, std::uint32_t{1}, 11), "code 3");
    EXPECT_EQ(text(RVMSG_REAL, 0.5F, 16), "0.5");
    EXPECT_EQ(text(RVMSG_REAL, 1e100, 25), "1e+100");
    EXPECT_EQ(text(RVMSG_REAL, 0.5, 24), "code 3");
    EXPECT_EQ(text(RVMSG_BOOLEAN, std::uint8_t{2}, 6), "True");
    EXPECT_EQ(text(RVMSG_BOOLEAN, std::uint32_t{0}, 6), "False");
    EXPECT_EQ(text(RVMSG_BOOLEAN, std::uint32_t{1}, 5), "code 3");
}

TEST(Convert, AddressesAreInNetworkOrder) {
    const std::uint32_t address = __builtin_bswap32(0x7F000001);
    EXPECT_EQ(text(RVMSG_IPDATA, address, 8), "7f000001");  // and its zero as a ninth byte
    EXPECT_EQ(text(RVMSG_IPDATA, address, 7), "code 3");
    EXPECT_EQ(text(RVMSG_IPDATA, __builtin_bswap16(7500), 4), "1d4c");
    EXPECT_EQ((convert<std::uint32_t>(RVMSG_UINT, RVMSG_IPDATA, address).value), 0x7F000001U);
    EXPECT_EQ((convert<std::uint32_t>(RVMSG_IPDATA, RVMSG_INT, 0x7F000001).value), address);
    EXPECT_EQ((parse<std::uint32_t>(RVMSG_IPDATA, "7F000001").value), address);
    EXPECT_EQ((convert<double>(RVMSG_REAL, RVMSG_IPDATA, address).code), 3);
}

TEST(Convert, ParsesTextsLikeAMachineWith32BitLongs) {
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, " -12").value), -12);
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "99999999999").value), 2147483647);
    EXPECT_EQ((parse<std::uint32_t>(RVMSG_UINT, "99999999999").value), 4294967295U);
    EXPECT_EQ((parse<std::uint32_t>(RVMSG_UINT, "-1").value), 4294967295U);
    EXPECT_EQ((parse<double>(RVMSG_REAL, "2.5").value), 2.5);
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "12x").code), 3);
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "").value), 0);
    EXPECT_EQ((parse<std::uint8_t>(RVMSG_BOOLEAN, "tomato").value), 1);
    EXPECT_EQ((parse<std::uint8_t>(RVMSG_BOOLEAN, "1").value), 0);
}

TEST(Convert, TakesTextsByTheirSize) {
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "1234", 4).value), 1234);
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "12345", 5).code), 3) << "without its zero";
    EXPECT_EQ((parse<std::int32_t>(RVMSG_INT, "12345", 2).value), 12);
    char target[8];
    EXPECT_EQ(rvmsg_Convert(RVMSG_STRING, 3, target, RVMSG_STRING, 0, "ab"), 0);
    EXPECT_STREQ(target, "ab");
    EXPECT_EQ(rvmsg_Convert(RVMSG_STRING, 2, target, RVMSG_STRING, 0, "ab"), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_STRING, sizeof target, target, RVMSG_STRING, 3, "abcdef"), 0);
    EXPECT_EQ(std::string(target, 3), "abc");
}

TEST(Convert, DatesAreTextsOfTheCLibrary) {
    const auto toText = [](std::uint32_t high, std::uint32_t low, rvmsg_Size capacity = 26) {
        const std::uint32_t date[] = {high, low, 0};
        char target[32];
        const int code = rvmsg_Convert(RVMSG_STRING, capacity, target, RVMSG_DATETIME, 12, date);
        return code == 0 ? std::string(target) : "code " + std::to_string(code);
    };
    const std::time_t seconds = 1000000000;
    char expected[32];
    EXPECT_EQ(toText(0, 1000000000), ctime_r(&seconds, expected));
    EXPECT_EQ(toText(0, 1000000000, 25), "code 3");
    EXPECT_NE(toText(255, 0xFFFFFFFF), "code 3") << "before the epoch";
    for (const std::uint32_t high : {0U, 1U, 255U})
        EXPECT_EQ(toText(high, high == 255 ? 1 : 0x80000000), "code 3") << "too far";
    const std::uint32_t date[] = {0, 1000000000, 0};
    std::uint32_t copy[3] = {};
    EXPECT_EQ(rvmsg_Convert(RVMSG_DATETIME, 12, copy, RVMSG_DATETIME, 12, date), 0);
    EXPECT_EQ(copy[1], date[1]);
    EXPECT_EQ(rvmsg_Convert(RVMSG_DATETIME, 8, copy, RVMSG_DATETIME, 12, date), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_INT, 4, copy, RVMSG_DATETIME, 12, date), 3);
}

TEST(Convert, NeedsAValueAndATarget) {
    std::int32_t value = 1;
    EXPECT_EQ(rvmsg_Convert(RVMSG_INT, 4, nullptr, RVMSG_INT, 4, &value), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_INT, 4, &value, RVMSG_INT, 4, nullptr), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_INT, 4, &value, RVMSG_INT, 3, &value), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_INT, 4, &value, RVMSG_OPAQUE, 4, &value), 3);
    EXPECT_EQ(rvmsg_Convert(RVMSG_MSG, 4, &value, RVMSG_INT, 4, &value), 3);
}
