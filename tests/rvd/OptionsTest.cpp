#include "rvd/Options.h"

#include <gtest/gtest.h>

#include <ctime>
#include <sstream>
#include <thread>

#include "platform/Log.h"

namespace kvx::rvd {
namespace {

TEST(Options, ListenAddressIsTheLoopbackUnlessAHostIsNamed) {
    Options options;
    EXPECT_EQ(parseListen("tcp:7501", options), "");
    EXPECT_EQ(options.listenAddress, 0x7F000001U);
    EXPECT_EQ(options.listenPort, 7501);
    EXPECT_EQ(parseListen("tcp:0.0.0.0:0", options), "");
    EXPECT_EQ(options.listenAddress, 0U);
    EXPECT_EQ(options.listenPort, 0);
    for (const char* bad : {"", "7500", "tcp:", "tcp::7500", "udp:7500", "tcp:65536", "tcp:-1",
                            "tcp:75 ", "tcp:host:"}) {
        EXPECT_NE(parseListen(bad, options), "") << bad;
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
    EXPECT_EQ(parsed.options.listenPort, 1);
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
