#include "rva/Options.h"

namespace kvx::rva {
namespace {

CommandLine parse(std::vector<const char*> words) {
    words.insert(words.begin(), "rva");
    return parseCommandLine(static_cast<int>(words.size()), words.data());
}

TEST(Options, AreWhatANetworkObjectHandsOver) {
    const auto line = parse({"-foreground", "-flavor", "53", "-listen", "7601", "-service", "svc",
                             "-network", "", "-daemon", "-"});
    ASSERT_FALSE(line.exitStatus);
    EXPECT_EQ(line.options.port, 7601);
    EXPECT_EQ(line.options.connection.service, "svc");
    EXPECT_EQ(line.options.connection.daemon, "-");
    EXPECT_FALSE(parse({}).options.port);
    for (const auto& nonsense : std::vector<std::vector<const char*>>{
             {"-listen"}, {"--listen", "1"}, {"x"}, {"-flavor", "053"}, {"-service", "a\"b"}}) {
        EXPECT_EQ(parse(nonsense).exitStatus, kUsage);
    }
}

TEST(Options, TakeAPortInTheConfigurationsForms) {
    std::uint16_t port = 0;
    for (const char* text : {"7600", "tcp:7600", "tcp:127.0.0.1:7600", "tcp:localhost:7600"}) {
        port = 0;
        EXPECT_EQ(parseListen(text, port), "") << text;
        EXPECT_EQ(port, 7600) << text;
    }
    for (const char* text : {"", "tcp:", "65536", "-1", "76 00", "udp:1", "tcp::1", "host:7600"}) {
        EXPECT_NE(parseListen(text, port), "") << text;
    }
}

}  // namespace
}  // namespace kvx::rva
