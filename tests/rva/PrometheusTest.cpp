// What is installed for Prometheus and Grafana, against Prometheus' own tool and against what a
// real agent serves of a real daemon.

#include <nlohmann/json.hpp>
#include <regex>

#include "mom/mom.h"
#include "rva/Metrics.h"
#include "tests/rva/AgentFixture.h"
#include "tests/support/Nets.h"

namespace kvx::test {
namespace {

using Names = std::set<std::string>;

constexpr const char* kRules = KVX_SOURCE_DIR "/packaging/prometheus/kvxmom.rules.yml";
constexpr const char* kRuleTests = KVX_SOURCE_DIR "/packaging/prometheus/kvxmom.tests.yml";
constexpr const char* kDashboard = KVX_SOURCE_DIR "/packaging/grafana/kvxmom.json";

// The first group of every match.
std::vector<std::string> matchesOf(const std::string& pattern, const std::string& text) {
    const std::regex regex(pattern);
    std::vector<std::string> all;
    for (std::sregex_iterator i(text.begin(), text.end(), regex), end; i != end; ++i) {
        all.push_back((*i)[1]);
    }
    return all;
}

Names namesIn(const std::vector<std::string>& expressions) {
    Names names;
    for (const auto& expression : expressions) {
        for (auto& name :
             matchesOf(R"(\b((?:rva_|rvd_|process_|instance\w*:)[\w:]+))", expression)) {
            names.insert(std::move(name));
        }
    }
    return names;
}

// Of every panel, and with its variables as Grafana would replace them.
std::vector<std::string> dashboardExpressions() {
    std::vector<std::string> all;
    const auto dashboard = nlohmann::json::parse(contentOf(kDashboard));
    for (const auto& panel : dashboard.at("panels")) {
        for (const auto& target : panel.at("targets")) {
            std::string text = target.at("expr");
            text = std::regex_replace(text, std::regex(R"(\$__rate_interval)"), "5m");
            all.push_back(std::regex_replace(text, std::regex(R"(\$instance)"), ".*"));
        }
    }
    return all;
}

Names servedIn(const std::string& metrics) {
    const auto names = matchesOf(R"((?:^|\n)([a-z_]+)[{ ])", metrics);
    return {names.begin(), names.end()};
}

struct PrometheusTest : AgentFixture {
    std::string metrics(int port) { return get(port, "/metrics").body; }
    void expectSound(const std::string& command) {
        const Ended ended = bus_.shell(command);
        EXPECT_EQ(ended.status, 0) << command << "\n" << ended.output << ended.errors;
        EXPECT_EQ(ended.errors, "") << command;
    }
};

TEST_F(PrometheusTest, RulesAreTestedAndSayWhatToRun) {
    expectSound(std::string("promtool check rules ") + kRules);
    expectSound(std::string("promtool test rules ") + kRuleTests);
    const std::string rules = contentOf(kRules);
    const std::string tests = contentOf(kRuleTests);
    for (const auto& alert : matchesOf(R"(alert: (\w+))", rules)) {
        EXPECT_NE(tests.find("alertname: " + alert + "\n        exp_alerts:"), std::string::npos)
            << alert;
        EXPECT_NE(tests.find("alertname: " + alert + "}"), std::string::npos) << alert;
    }
    const std::string folded = std::regex_replace(rules, std::regex(R"(\n +)"), " ");
    const auto commands = matchesOf(R"('(kvx explain [a-z ]+)')", folded);
    EXPECT_GE(commands.size(), 3U);
    for (const auto& command : commands) EXPECT_EQ(bus_.shell(command).status, 0) << command;
}

TEST_F(PrometheusTest, RulesAndDashboardUseWhatIsServed) {
    const Home home(bus_.daemonText());
    const int port = start({"-interval", "1"});
    Names wanted;
    for (const auto& metric : rva::metrics()) wanted.insert(metric.name);
    CVekClient client(2000, "NET1");
    CVekEngine engine(1, "grp", "NET1", SERV_UNKNOWN);
    CVekEnv env;
    engine.REStartHeartBeat("Model", "NET1", &env);
    Names served;
    EXPECT_TRUE(runUntil(
        engine, [&] { return (served = servedIn(metrics(port))) == wanted; }, &CVekEngine::REDoIt));
    EXPECT_EQ(served, wanted);
    expectSound("promtool check metrics <" + bus_.file("metrics", metrics(port)));

    const std::string rules = contentOf(kRules);
    for (const auto& name : matchesOf(R"(record: ([\w:]+))", rules)) served.insert(name);
    const auto ofRules = matchesOf(R"(expr: ([^\n]+))", rules);
    const auto ofDashboard = dashboardExpressions();
    EXPECT_GE(ofDashboard.size(), 20U);
    for (const auto& expressions : {ofRules, ofDashboard}) {
        for (const auto& name : namesIn(expressions)) EXPECT_TRUE(served.contains(name)) << name;
    }
    auto asRules = nlohmann::json::array();
    for (const auto& expression : ofDashboard) {
        asRules.push_back(
            {{"record", "panel:" + std::to_string(asRules.size())}, {"expr", expression}});
    }
    const nlohmann::json document = {{"groups", {{{"name", "panels"}, {"rules", asRules}}}}};
    expectSound("promtool check rules " + bus_.file("panels.yml", document.dump()));
}

TEST_F(PrometheusTest, ADaemonThatHangsOrIsGoneIsShownAndDelaysNoScrape) {
    const int port = start({"-interval", "1"});
    const auto becomes = [&](const char* state) {
        const auto line = std::string("\nrvd_state{state=\"") + state + "\"} 1\n";
        return eventually([&] { return metrics(port).find(line) != std::string::npos; });
    };
    const auto questions = [&] {
        return std::stoi(
            matchesOf(R"(rva_questions_total\{about="status"\} (\d+))", metrics(port)).at(0));
    };
    ASSERT_TRUE(becomes("answers"));
    const int before = questions();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i) metrics(port);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(questions() - before, static_cast<int>(time.count()) + 2);

    bus_.daemon().pause();
    ASSERT_TRUE(becomes("silent"));
    EXPECT_NE(metrics(port).find("\nrvd_up 0\n"), std::string::npos);
    EXPECT_EQ(metrics(port).find("\nrvd_sessions"), std::string::npos);
    EXPECT_NE(agent_->awaitError("no figures of the daemon"), "");
    bus_.daemon().resume();
    ASSERT_TRUE(becomes("answers"));
    bus_.daemon().kill();
    ASSERT_TRUE(becomes("lost"));
    bus_.daemon().restart();
    ASSERT_TRUE(becomes("answers"));
    EXPECT_NE(metrics(port).find("\nrvd_up 1\n"), std::string::npos);
}

}  // namespace
}  // namespace kvx::test
