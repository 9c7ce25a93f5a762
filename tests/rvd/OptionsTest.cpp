#include "rvd/Options.h"

#include <ctime>
#include "platform/Log.h"

namespace kvx::rvd {
namespace {

TEST(Options, ListenAddressIsTheLoopbackUnlessAHostOrAPathIsNamed) {
    const auto parsed = [](const char* text) {
        ListenAddress address;
        EXPECT_EQ(parseListen(text, address), "");
        return address;
    };
    EXPECT_EQ(parsed("tcp:7501").endpoint, (platform::Endpoint{0x7F000001U, 7501}));
    EXPECT_EQ(parsed("tcp:0.0.0.0:0").endpoint, platform::Endpoint());
    EXPECT_EQ(parsed("unix:/run/rvd:1").path, "/run/rvd:1");
    EXPECT_TRUE(parsed(("unix:/" + std::string(106, 'x')).c_str()).isUnix());
    const std::string tooLong = "unix:/" + std::string(107, 'x');
    ListenAddress ignored;
    for (const char* bad :
         {"", "7500", "tcp:", "tcp::7500", "udp:7500", "tcp:65536", "tcp:-1", "tcp:75 ",
          "tcp:host:", "unix:", "unix:rvd", "unix:/a b", "unix:/a\n", tooLong.c_str()}) {
        EXPECT_NE(parseListen(bad, ignored), "") << bad;
    }
}

TEST(Options, NetworksAgreeInTheirFirstBits) {
    EXPECT_TRUE(parseNetwork("10.1.0.0/16")->contains(0x0A01FFFF));
    EXPECT_FALSE(parseNetwork("10.1.0.0/16")->contains(0x0A020000));
    EXPECT_TRUE(parseNetwork("10.1.2.3/0")->contains(0xFFFFFFFF));
    EXPECT_FALSE(parseNetwork("10.1.2.3")->contains(0x0A010202));
    for (const char* bad : {"", "10", "10.1.2", "10.1.2.3/", "10.1.2.3/33", "10.1.2.3/-1", "::1",
                            "localhost", "10.1.2.3/8/8"}) {
        EXPECT_FALSE(parseNetwork(bad).has_value()) << bad;
    }
}

TEST(Options, AreSpelledWithOneDashOrTwoAndLimitsTakeSuffixes) {
    for (const auto& [text, bytes] :
         {std::pair{"1", 1ULL}, {"4k", 4096ULL}, {"64M", 64ULL << 20U}, {"2G", 2ULL << 30U}}) {
        EXPECT_EQ(parseBytes(text), bytes);
    }
    for (const char* bad : {"", "0", "k", "4kk", "4x", "-1", "18446744073709551615k"})
        EXPECT_FALSE(parseBytes(bad).has_value()) << bad;
    const char* line[] = {"rvd",      "-listen",  "tcp:1", "--queue-limit", "8k",
                          "-address", "10.0.0.1", "-v",    "-memory",       "3M"};
    const CommandLine parsed = parseCommandLine(10, line);
    ASSERT_FALSE(parsed.exitStatus.has_value());
    EXPECT_EQ(parsed.options.listen.at(0).endpoint.port, 1);
    EXPECT_EQ(parsed.options.queueLimit, 8192U);
    EXPECT_EQ(parsed.options.memoryLimit, 3U << 20U);
    EXPECT_EQ(parseCommandLine(1, line).options.memoryLimit, std::nullopt);
    EXPECT_EQ(parsed.options.hostAddress, 0x0A000001U);
    EXPECT_EQ(parsed.options.logLevel, platform::LogLevel::Debug);
}

// The seconds may change between the lines.
TEST(Log, LeavesLinesOutThatComeTooFastAndSaysHowMany) {
    platform::Log log(platform::LogLevel::Debug);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 1000; ++i) log.warning("too many");
    for (int i = 0; i < 1000; ++i) log.debug("all");
    const std::time_t last = std::time(nullptr);
    while (std::time(nullptr) == last) std::this_thread::yield();
    log.info("the next one");
    std::istringstream written(testing::internal::GetCapturedStderr());
    int all = 0;
    int warnings = 0;
    int leftOut = 0;
    for (std::string stamp, level, text;
         written >> stamp >> level && std::getline(written, text);) {
        if (text == " all") ++all;
        if (text == " too many") ++warnings;
        if (text.ends_with("left out")) leftOut += std::stoi(text);
    }
    EXPECT_EQ(all, 1000);
    EXPECT_LT(warnings, 1000);
    EXPECT_EQ(warnings + leftOut, 1000);
}

}  // namespace
}  // namespace kvx::rvd
