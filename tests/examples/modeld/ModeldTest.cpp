// The program as its user meets it: what it logs, how it ends, what it does without a daemon.

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

constexpr const char* kDevices = "name,ports\ncore-1,48\n";
constexpr const char* kNoDaemon = "rendezvous session = { \"daemon\" = \"nonsense\" };\n";

struct ModeldTest : testing::Test {
    std::unique_ptr<ChildProcess> startModel(std::vector<std::string> more = {}) {
        more.insert(more.end(), {"--watch-source", "1", "--statistics", "1"});
        return bus_.startModel(bus_.file("devices.csv", kDevices), more);
    }

    Ended ask(const std::string& text) { return bus_.kvx({"query", "Model", text}); }

    static bool tells(const ChildProcess& model, const std::string& part, int times = 1) {
        return eventually([&] { return countOf(model.errors(), part) == times; });
    }

    Installation bus_;
};

TEST_F(ModeldTest, LogsNoByteOfAQuestionRawAndNoProbe) {
    const auto model = startModel();
    EXPECT_EQ(bus_.kvx({"services", "--wait", "1"}).status, 0);
    ask("select \x1b]0;title\x07 from devices");
    ask("select \"\xc2\x9b" + std::string(30000, 'x') + "\xff\" from devices where name = \"\n\"");
    ask("select last from devices");
    EXPECT_TRUE(tells(*model, "no column 'last'"));
    const std::string log = model->errors();
    EXPECT_EQ(log.find_first_of("\x1b\x07\x9b\xff"), std::string::npos) << log;
    EXPECT_EQ(countOf(log, "refused: "), 3) << log;
    EXPECT_EQ(countOf(log, "\n"), countOf(log, "modeld: "));
    EXPECT_LT(log.size(), 2000U);
    EXPECT_EQ(log.find("services"), std::string::npos) << log;
}

TEST_F(ModeldTest, TellsOnceThatASourceIsGoneAndThatItIsBack) {
    const auto model = startModel();
    std::filesystem::remove(bus_.path("devices.csv"));
    EXPECT_TRUE(tells(*model, "devices.csv: is gone"));
    bus_.file("devices.csv", "name,ports\ncore-1,96\n");
    EXPECT_TRUE(tells(*model, "1 changes published"));
    EXPECT_EQ(countOf(model->errors(), "devices.csv: is back"), 1);
    EXPECT_EQ(countOf(model->errors(), "devices.csv: is gone"), 1);
}

TEST_F(ModeldTest, PublishesTheLastOfTheChangesThatItFoundWithoutADaemon) {
    const auto model = startModel();
    bus_.daemon().kill();
    EXPECT_TRUE(tells(*model, "the daemon is away"));
    bus_.file("devices.csv", "name,ports\ncore-1,96\n");
    EXPECT_TRUE(tells(*model, "brought up to date"));
    bus_.file("devices.csv", "name,ports\ncore-1,192\n");
    EXPECT_TRUE(tells(*model, "brought up to date", 2));
    bus_.daemon().restart();
    EXPECT_TRUE(tells(*model, "the daemon is back"));
    EXPECT_TRUE(tells(*model, "1 changes published"));
    EXPECT_EQ(model->errors().find("Nothing could be sent"), std::string::npos);
}

TEST_F(ModeldTest, EndsAtOnceWhileTheDaemonIsAway) {
    const auto model = startModel();
    bus_.daemon().kill();
    EXPECT_NE(model->awaitError("the daemon is away"), "");
    const auto begin = std::chrono::steady_clock::now();
    model->kill(SIGTERM);
    EXPECT_EQ(model->wait(), 0);
    // Two rounds of attempts would take sixteen seconds; a sanitizer hands signals on late.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
    EXPECT_EQ(countOf(model->errors(), "ended by a signal"), 1);
}

TEST_F(ModeldTest, ShowsTheProgressOfALoadOnATerminalOnly) {
    bus_.file("etc/Calvorine.rvd.cfg", kNoDaemon);
    std::string rows = "name,ports\n";
    for (int i = 0; i < 20000; ++i) rows += "core-" + std::to_string(i) + ",48\n";
    const std::string load = KVX_BIN_DIR "/modeld --load " + bus_.file("many.csv", rows) + " --db ";
    ChildProcess terminal("/usr/bin/script", {"-qec", load + bus_.path("a.db"), "/dev/null"},
                          {"KVX_HOME=" + bus_.path("")});
    EXPECT_EQ(terminal.wait(), 1);
    const std::string shown = terminal.output();
    EXPECT_NE(shown.find(" of 20000 rows ("), std::string::npos) << shown;
    EXPECT_NE(shown.find("\r\x1b[Kmodeld: info: loaded 20000 rows"), std::string::npos) << shown;
    const auto quiet = bus_.run(
        "modeld", {"--load", bus_.path("many.csv"), "--db", bus_.path("b.db"), "-q", "-q"});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(countOf(quiet.errors, "modeld: "), countOf(quiet.errors, "modeld: error: "));
    EXPECT_EQ(countOf(quiet.errors,
                      "modeld: error: connecting to the bus daemon at nonsense: no daemon: "),
              1);
    EXPECT_EQ(quiet.errors.find('\r'), std::string::npos);
}

TEST_F(ModeldTest, TellsOnOneLineWhatIsWrongWithItsCommandLine) {
    const auto refused = bus_.run("modeld", {"--load", "no\x1b[31m\nfile"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors.find('\x1b'), std::string::npos) << refused.errors;
    EXPECT_EQ(refused.errors.rfind("modeld: error: --load: ", 0), 0U) << refused.errors;
    EXPECT_LT(bus_.run("modeld", {std::string(100'000, 'x')}).errors.size(), 700U);
    const auto nowhere =
        bus_.run("modeld", {"--db", bus_.path("a.db"), "--load", bus_.file("a.csv", kDevices), "-q",
                            "--domain", "A..B"});
    EXPECT_EQ(nowhere.errors, "modeld: error: open: invalid argument: 'A..B' is no domain\n");
    ChildProcess help("/bin/sh", {"-c", KVX_BIN_DIR "/modeld --help >/dev/full"});
    EXPECT_EQ(help.wait(), 1) << "the help was lost";
    EXPECT_EQ(bus_.run("modeld", {"--db", ""}).errors,
              "modeld: error: a database needs a file name\n");
}

}  // namespace
}  // namespace kvx::test
