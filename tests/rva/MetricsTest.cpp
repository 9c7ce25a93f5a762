#include "rva/Metrics.h"

#include <fmt/format.h>

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

}  // namespace
}  // namespace kvx::rva
