// The agent's metrics and its command line.

#include <fmt/format.h>

#include "rva/Metrics.h"
#include "rva/Options.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::rva {
namespace {

bool has(const std::string& text, const std::string& line) {
    return text.find("\n" + line + "\n") != std::string::npos;
}

TEST(Metrics, AreShownInTheFormOfPrometheus) {
    Sample sample;
    sample.bus.ready = true;
    sample.bus.beats.heard = 12345678901;
    sample.process.cpuSeconds = 0.25;
    const std::string text = metricsText(sample);
    EXPECT_EQ(text.rfind("# HELP rva_ready 1 while the bus session is up, 0 while it is lost\n"
                         "# TYPE rva_ready gauge\nrva_ready 1\n",
                         0),
              0U);
    EXPECT_TRUE(has(text,
                    "# TYPE rva_heard_beats_total counter\n"
                    "rva_heard_beats_total 12345678901"))
        << text;
    EXPECT_TRUE(has(text, "process_cpu_seconds_total 0.25"));
    EXPECT_EQ(text.find("rvd_"), std::string::npos);
}

TEST(Metrics, StandInOneTableWithTheDocumentation) {
    const std::string page = test::contentOf(KVX_SOURCE_DIR "/docs/operations.md");
    for (const Metric& metric : metrics()) {
        const bool isCounter = metric.kind == Metric::Kind::Counter;
        EXPECT_EQ(metric.name.ends_with("_total"), isCounter) << metric.name;
        const std::string line =
            fmt::format("| `{}` | {} | {} | {} |\n", metric.name, isCounter ? "counter" : "gauge",
                        metric.labels, metric.meaning);
        EXPECT_NE(page.find(line), std::string::npos) << line;
    }
}

// Session `number` with so many bytes waiting.
Json session(int number, std::uint64_t waiting) {
    return {{"number", static_cast<std::uint64_t>(number)},
            {"name", "s" + std::to_string(number)},
            {"service", "7500"},
            {"waiting_bytes", waiting}};
}

TEST(Metrics, NameTheForemostSessionsAndSumTheOthers) {
    Json answer = Json::object();
    for (int i = 1; i <= 30; ++i) answer["session"].push_back(session(i, 10));
    answer["session"].push_back(session(31, 5));
    answer["session"].back()["behind_ms"] = std::uint64_t{1500};
    answer["session"].push_back(session(32, 1000));
    Sample sample;
    sample.bus.daemon.take(Topic::Sessions, answer, 0);
    const std::string text = metricsText(sample);
    EXPECT_TRUE(has(text, "rvd_sessions_behind 1"));
    EXPECT_TRUE(has(text, R"(rvd_session_queue_bytes{session="other"} 120)")) << text;
    const auto line = [](int number, const char* value) {
        return fmt::format(
            R"({{session="s{0}",number="{0}",address="",service="7500",network=""}} {1})", number,
            value);
    };
    EXPECT_TRUE(has(text, "rvd_session_behind_seconds" + line(31, "1.5")));
    EXPECT_TRUE(has(text, "rvd_session_queue_bytes" + line(32, "1000")));
    EXPECT_TRUE(has(text, "rvd_session_queue_bytes" + line(18, "10")));
    EXPECT_FALSE(has(text, "rvd_session_queue_bytes" + line(19, "10")));
    EXPECT_EQ(text.find("rvd_session_dropped_messages_total{session=\"other\"}"),
              std::string::npos);
}

TEST(Metrics, HaveTheInboxesOfASessionAsOneSubject) {
    Json answer = Json::object();
    for (const char* subject :
         {"NEWS", "_INBOX.a.b.1", "_INBOX.c.d.1", "_INBOX.a.b.2", "_INBOX.x"}) {
        answer["subject"].push_back({{"subject", subject}, {"messages", 2U}, {"rate", 0.75}});
    }
    DaemonFigures daemon;
    daemon.take(Topic::Subjects, answer, 0);
    std::string shown;
    for (const Json& row : daemon.subjects().kept) {
        shown += fmt::format("{} {} {}, ", row["subject"].get<std::string>(),
                             row["messages"].get<int>(), row["rate"].get<double>());
    }
    EXPECT_EQ(shown, "_INBOX.a.b.> 4 1.5, NEWS 2 0.75, _INBOX.c.d.> 2 0.75, _INBOX.x 2 0.75, ");
}

// A scrape with a line that cannot be read, or two of one name, is refused as a whole.
TEST(Metrics, ShowAnyTextsInLabels) {
    Json answer = Json::object();
    const std::string nonsense = "a\"\\\n\xff" + std::string(1000, 'x') + "\xc3\xa4";
    for (int i = 0; i < 2; ++i) {
        answer["subject"].push_back({{"subject", nonsense}, {"service", 1}, {"rate", 1.5}});
    }
    answer["subject"].push_back("no row");
    Sample sample;
    sample.bus.daemon.take(Topic::Subjects, answer, 0);
    const std::string text = metricsText(sample);
    const auto begin = text.find("rvd_subject_messages_per_second{");
    ASSERT_NE(begin, std::string::npos);
    const std::string line = text.substr(begin, text.find('\n', begin) - begin);
    EXPECT_TRUE(line.starts_with(R"(rvd_subject_messages_per_second{subject="a\"\\\\x0a\\xffxxx)"))
        << line;
    EXPECT_TRUE(line.ends_with("\xc3\xa4\",service=\"\",network=\"\"} 3")) << line;
    EXPECT_LT(line.size(), 300U);
}

TEST(Metrics, HaveNoFiguresOfADaemonThatDoesNotAnswer) {
    const Json status = {{"version", "2"}, {"counters", {{"sessions_open", 3}}}};
    for (const auto& [how, name] :
         {std::pair(Answering::Silent, "silent"), std::pair(Answering::Refuses, "refuses"),
          std::pair(Answering::Lost, "lost")}) {
        Sample sample;
        sample.bus.daemon.take(Topic::Status, status, 1'000);
        sample.bus.now = 3'500;
        EXPECT_TRUE(has(metricsText(sample), "rvd_sessions 3"));
        sample.bus.daemon.miss(Topic::Status, how);
        const std::string text = metricsText(sample);
        EXPECT_TRUE(has(text, "rvd_up 0"));
        EXPECT_TRUE(has(text, fmt::format(R"(rvd_state{{state="{}"}} 1)", name))) << text;
        EXPECT_TRUE(has(text, R"(rvd_figures_age_seconds{about="status"} 2.5)"));
        EXPECT_EQ(text.find("\nrvd_sessions "), std::string::npos);
        EXPECT_EQ(text.find("rvd_info"), std::string::npos);
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
    ASSERT_TRUE(line.options.listen);
    EXPECT_EQ(line.options.listen->port, 7601);
    EXPECT_EQ(line.options.connection.service, "svc");
    EXPECT_EQ(line.options.connection.daemon, "-");
    EXPECT_FALSE(parse({}).options.listen);
    EXPECT_EQ(parse({"-host", "a", "-host", "b"}).options.hosts,
              (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(parse({"-interval", "0"}).options.intervalSeconds, 0U);
    for (const auto& nonsense : std::vector<std::vector<const char*>>{{"-listen"},
                                                                      {"x"},
                                                                      {"-flavor", "053"},
                                                                      {"-service", "a\"b"},
                                                                      {"-interval", ""},
                                                                      {"-interval", "-1"},
                                                                      {"-interval", "1s"}}) {
        EXPECT_EQ(parse(nonsense).exitStatus, kUsage);
    }
}

TEST(Options, TakeAnAddressInTheConfigurationsForms) {
    for (const char* text : {"7600", "tcp:7600", "tcp:127.0.0.1:7600", "tcp:localhost:7600"}) {
        ListenAddress address;
        EXPECT_EQ(parseListen(text, address), "") << text;
        EXPECT_EQ(address.port, 7600) << text;
        EXPECT_TRUE(address.isLoopback()) << text;
    }
    ListenAddress all;
    EXPECT_EQ(parseListen("tcp:0.0.0.0:7600", all), "");
    EXPECT_FALSE(all.isLoopback());
    for (const char* text : {"", "tcp:", "65536", "-1", "76 00", "udp:1", "tcp::1", "host:7600"}) {
        ListenAddress address;
        EXPECT_NE(parseListen(text, address), "") << text;
    }
}

}  // namespace
}  // namespace kvx::rva
