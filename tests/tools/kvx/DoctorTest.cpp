// `kvx doctor` beside daemons that are well, gone, something else, or silent.

#include <nlohmann/json.hpp>

#include "platform/Socket.h"
#include "tests/support/Home.h"
#include "tests/support/RawClient.h"
#include "tests/support/ScriptedDaemon.h"
#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

struct Visit {
    int status = -1;
    std::map<std::string, std::string> states;  // the worst of each check
    std::string output;

    [[nodiscard]] bool says(const std::string& check, const std::string& state,
                            const std::string& text) const {
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const auto json = nlohmann::json::parse(line);
            if (json.at("check") == check && json.at("state") == state &&
                json.at("text").get<std::string>().find(text) != std::string::npos) {
                return state == "OK" || !json.at("mend").get<std::string>().empty();
            }
        }
        return false;
    }
};

// The visit of a patient whose configuration file has this text.
std::unique_ptr<ChildProcess> visitor(const Home& home, const std::string& timeout = "1") {
    return std::make_unique<ChildProcess>(
        KVX_BIN_DIR "/kvx",
        std::vector<std::string>{"doctor", "--json", "--wait", "0", "--timeout", timeout},
        std::vector<std::string>{"XDG_STATE_HOME=" + home.path()});
}

Visit resultOf(ChildProcess& child) {
    Visit visit;
    visit.status = child.wait();
    visit.output = child.output();
    std::istringstream lines(visit.output);
    for (std::string line; std::getline(lines, line);) {
        const auto json = nlohmann::json::parse(line);
        std::string& worst = visit.states[json.at("check")];
        const std::string state = json.at("state");
        if (worst != "FAIL" && (worst != "WARN" || state == "FAIL")) worst = state;
    }
    EXPECT_EQ(child.errors(), "") << visit.output;
    return visit;
}

Visit visit(const Home& home) {
    return resultOf(*visitor(home));
}

TEST(Doctor, FindsAHealthyBusHealthy) {
    const Daemon daemon;
    const Home home(daemon.text());
    const Visit visit = test::visit(home);
    EXPECT_EQ(visit.status, 0) << visit.output;
    for (const char* check : {"environment", "configuration", "versions", "agent", "daemon",
                              "session", "status", "services", "bridges"}) {
        EXPECT_EQ(visit.states.at(check), "OK") << visit.output;
    }
    for (const char* check : {"limits", "clocks"}) EXPECT_EQ(visit.states.count(check), 1U);
    EXPECT_TRUE(visit.says("daemon", "OK", daemon.text() + " completes the handshake"));
}

TEST(Doctor, FindsNoDaemonAndStartsNone) {
    const auto port = ScriptedDaemon(std::vector<ScriptedDaemon::Script>{}).port();
    const std::string address = "tcp:" + std::to_string(port);
    const Home home(address);
    const Visit visit = test::visit(home);
    EXPECT_EQ(visit.status, 1);
    EXPECT_TRUE(visit.says("daemon", "FAIL", "no daemon at " + address)) << visit.output;
    EXPECT_EQ(visit.states.count("session"), 0U);
    EXPECT_EQ(test::visit(home).status, 1) << "none was started";
}

TEST(Doctor, WorksWithABrokenConfiguration) {
    const Daemon daemon;
    Home home("");
    home.writeConfiguration("rendezvous session = { \"daemon\" = \"" + daemon.text() +
                            "\", \"rva\" = \"one\", \"deamon\" = \"x\" };\nnonsense!\n");
    const Visit visit = test::visit(home);
    EXPECT_EQ(visit.status, 1);
    EXPECT_TRUE(visit.says("configuration", "FAIL", "Calvorine.rvd.cfg:2: ")) << visit.output;
    EXPECT_TRUE(visit.says("configuration", "WARN", "'deamon' is unknown")) << visit.output;
    EXPECT_TRUE(visit.says("agent", "FAIL", "'one'")) << visit.output;
    EXPECT_EQ(visit.states.at("session"), "OK") << "the good block counts";
    for (const char* text : {"7500", "tcp:", "tcp:host:", "tcp:7500x", "tcp:0", "-"}) {
        home.writeConfiguration("rendezvous session = { \"daemon\" = \"" + std::string(text) +
                                "\" };\n");
        const Visit wrong = test::visit(home);
        EXPECT_EQ(wrong.status, 1) << text;
        EXPECT_EQ(wrong.states.at("daemon"), "FAIL") << wrong.output;
    }
}

TEST(Doctor, NamesWhatListensInsteadAndNeverHangs) {
    using Script = ScriptedDaemon::Script;
    static const std::string banner = "SSH-2.0-OpenSSH_9.2\r\n";
    std::atomic<bool> isOver = false;
    const auto wait = [&isOver] { EXPECT_TRUE(eventually([&] { return isOver.load(); })); };
    const Script another = [](PeerLink& link) {
        link.send({reinterpret_cast<const std::uint8_t*>(banner.data()), banner.size()});
    };
    const Script silent = [&](PeerLink&) { wait(); };
    const Script greeting = [](PeerLink& link) { link.greet(wire::kProtocolV4); };
    const Script halfway = [&](PeerLink& link) {
        link.negotiateV4();
        wait();
    };
    for (const auto& [scripts, text] : std::vector<std::pair<std::vector<Script>, std::string>>{
             {{another}, "is no bus daemon: it begins with 'SSH-2.0"},
             {{silent}, "does not greet within 1 s"},
             {{greeting, halfway}, "greets, but does not complete the handshake within 1 s"}}) {
        isOver = false;
        ScriptedDaemon daemon(scripts);
        const Home home(daemon.text());
        const Visit visit = test::visit(home);
        isOver = true;
        EXPECT_EQ(visit.status, 1);
        EXPECT_TRUE(visit.says("daemon", "FAIL", text)) << visit.output;
    }
}

TEST(Doctor, TellsOfHostsThatAreGoneAndOfLosses) {
    const Daemon daemon;
    const Home home(daemon.text());
    RawClient bridge = RawClient::session(daemon.port());
    bridge.listen("_RVD.HOSTS");
    bridge.settle();
    const auto child = visitor(home, "30");
    const Received question = bridge.expectNext();
    bridge.publish(question.reply, R"([{"host":"berlin","self":true,"up":true,"lost":{}},)"
                                   R"({"host":"paris","up":false,"lost":{"engine gone":7}}])");
    const Visit visit = resultOf(*child);
    EXPECT_EQ(visit.status, 0) << visit.output;
    EXPECT_TRUE(visit.says("bridges", "WARN", "host paris is gone")) << visit.output;
    EXPECT_TRUE(visit.says("bridges", "WARN", "7 engine gone")) << visit.output;
}

}  // namespace
}  // namespace kvx::test
