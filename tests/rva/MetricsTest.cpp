// The agent's metrics and its command line.

#include <fmt/format.h>

#include "rva/Metrics.h"
#include "rva/Options.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::rva {
namespace {

TEST(Metrics, AreShownInOpenMetricsForm) {
    Sample sample;
    sample.bus.ready = true;
    sample.bus.beats.heard = 12345678901;
    sample.process.cpuSeconds = 0.25;
    const std::string text = metricsText(sample);
    EXPECT_EQ(text.rfind("# HELP rva_ready 1 while the bus session is up, 0 while it is lost\n"
                         "# TYPE rva_ready gauge\nrva_ready 1\n",
                         0),
              0U);
    EXPECT_NE(text.find("# TYPE rva_heard_beats counter\n# UNIT rva_heard_beats beats\n"
                        "rva_heard_beats_total 12345678901\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nprocess_cpu_seconds_total 0.25\n"), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n# EOF\n"));
}

TEST(Metrics, StandInOneTableWithTheDocumentation) {
    const std::string page = test::contentOf(KVX_SOURCE_DIR "/docs/operations.md");
    for (const Metric& metric : metrics()) {
        const std::string name = metric.name;
        if (*metric.unit != '\0') {
            EXPECT_TRUE(name.ends_with(std::string("_") + metric.unit)) << name;
        }
        const char* const kind = metric.kind == Metric::Kind::Counter ? "counter" : "gauge";
        const std::string line =
            fmt::format("| `{}` | {} | {} | {} |\n", name, kind, metric.unit, metric.meaning);
        EXPECT_NE(page.find(line), std::string::npos) << line;
    }
}

TEST(Metrics, HaveTheProcessesOwnFigures) {
    const auto figures = platform::processFigures();
    EXPECT_GT(figures.cpuSeconds, 0);
    EXPECT_GT(figures.residentBytes, 100'000U);
    EXPECT_GE(figures.openDescriptors, 3U);
    const std::ifstream one("/proc/self/stat");
    EXPECT_EQ(platform::processFigures().openDescriptors, figures.openDescriptors + 1);
}

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
