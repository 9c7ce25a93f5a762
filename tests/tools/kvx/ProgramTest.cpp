// The tool as a person at a shell drives it: what it says, where, and how it ends.

#include "tests/support/Daemon.h"
#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

// A packet with one record, whose field "m" is "1", where the model service tells of changes.
constexpr const char* kPacket =
    "send ZEMBRALIX.3.0.MODEL.NOTIFY.DEFAULT "
    "a:hex=000000000000000100000000000000010001000000000000000000069192a16da131";

class ProgramTest : public ::testing::Test {
  protected:
    // `command` with its output redirected, while `feeder` is run until it ends.
    Ended fed(const std::string& command, const std::string& feeder) {
        return bus_.shell(command + " & tool=$!; while kill -0 $tool 2>/dev/null; do kvx " +
                          feeder + "; done; wait $tool");
    }

    Installation bus_;
};

TEST_F(ProgramTest, FailsWhenItsOutputCannotBeWritten) {
    const auto model = bus_.startModel(bus_.file("devices.csv", "name\na\nb\n"));
    // Each with what makes it write.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"kvx query Model 'select * from devices'", ""},
        {"kvx query Model 'select * from devices' --json", ""},
        {"kvx follow Model 'select * from devices'", ""},
        {"kvx bench --messages 9 --requests 9", ""},
        {"kvx services --wait 0.2", ""},
        {"kvx services --watch", ""},
        {"kvx --help", ""},
        {"kvx --version", ""},
        {"kvx help send", ""},
        {"kvx request ZEMBRALIX.3.0.MODEL.QUERY.DEFAULT QryInfoOQLStr='select * from devices'", ""},
        {"modeld --help", ""},
        {"rva -help", ""},
        {"kvx listen NEWS", "send NEWS x=1"},
        {"kvx snoop Model", kPacket}};
    for (const auto& [command, feeder] : cases) {
        for (const std::string redirection : {" >/dev/full", " >&-"}) {
            const std::string line = command + redirection;
            const Ended ended = feeder.empty() ? bus_.shell(line) : fed(line, feeder);
            EXPECT_EQ(ended.status, 1) << line << ended.errors;
            const std::string program = line.starts_with("kvx") ? "kvx: " : "";
            EXPECT_TRUE(holds(ended.errors, program + "standard output: ")) << line << ended.errors;
        }
    }
}

TEST_F(ProgramTest, PrintsRowsOnlyWhateverTheConfigurationFileHolds) {
    const auto model = bus_.startModel(bus_.file("devices.csv", "name\na\n"));
    bus_.file("etc/Calvorine.rvd.cfg",
              "nonsense!\nrendezvous session = { \"daemon\" = \"" + bus_.daemonText() + "\" };\n");
    const Ended ended = bus_.kvx({"query", "Model", "select * from devices", "--csv"});
    EXPECT_EQ(ended.output, "name\na\n");
    EXPECT_TRUE(holds(ended.errors, "Parser error: parse error line : 1\n"));
}

TEST_F(ProgramTest, EndsAsUsualWhenItsComplaintsCannotBeWritten) {
    const auto model = bus_.startModel(bus_.file("devices.csv", "name\na\nb\n"));
    for (const std::string redirection : {" 2>/dev/full", " 2>&-"}) {
        for (const auto& [command, status] : std::vector<std::pair<std::string, int>>{
                 {"kvx query Model 'select * from devices' --json", 0},
                 {"kvx query Model 'select * from nothing'", 1},
                 {"kvx nonsense", 2},
                 {"modeld --nonsense", 2},
                 {"rva -nonsense", 2},
                 {"rvd --nonsense", 2}}) {
            EXPECT_EQ(bus_.shell(command + redirection).status, status) << command << redirection;
        }
    }
}

TEST_F(ProgramTest, FailsWhenNobodyReadsItsOutputAnyMore) {
    std::string rows = "name\n";
    for (int i = 0; i < 20000; ++i) rows += "device" + std::to_string(i) + '\n';
    const auto model = bus_.startModel(bus_.file("devices.csv", rows));
    const Ended ended =
        bus_.shell("(kvx query Model 'select name from devices'; echo status $? >&2) | head -n 1");
    EXPECT_EQ(ended.output, "name\n");
    EXPECT_TRUE(holds(ended.errors, "kvx: standard output: Broken pipe\nstatus 1\n"));
}

TEST_F(ProgramTest, SaysWhatIsWrongWithACommandLine) {
    const std::string longText(100'000, 'y');
    for (const auto& [line, reason] : std::vector<std::pair<std::string, std::string>>{
             {"qury Model x", "unknown command 'qury'; did you mean 'query'?"},
             {"help lisen", "unknown command 'lisen'; did you mean 'listen'?"},
             {"listen --cuont 5 A", "unknown option '--cuont'; did you mean '--count'?"},
             {"--deamon x listen A", "unknown option '--deamon'; did you mean '--daemon'?"},
             {"query Model one two", "'two' is one word too many"},
             {"listen A --count -5", "'-5' is no whole number of at least 0"},
             {"bench --messages -1", "'-1' is no whole number of at least 1"},
             {"bench --bytes -1", "--bytes"},
             {"query Model x --timeout nan", "'nan' is not between 0.001 and 86400 seconds"},
             {"services --wait 1e9", "'1e9' is not between 0.01 and 3600 seconds"},
             {"send A --repeat 0", "'0' is no whole number of at least 1"},
             {"send A --opaque x=1", "--opaque needs -"},
             {"query Model x --csv --json", "excludes"},
             {"-v", "a command is missing"},
             {"query", "required"},
             {"listen A --daemon 'tcp:\"1'", "--daemon"},
             {"follow Model x --domain A..B", "'A..B' is no domain"},
             {"send A x:" + longText + "=1", "is no field type"},
             {"send A " + longText, "is not of the form"},
             {"listen A --count " + longText, "..."},
             {"send A 'x:\x1b[31m=1'", "'x: [31m=1'"}}) {
        const Ended ended = bus_.shell("kvx " + line);
        EXPECT_EQ(ended.status, 2) << line.substr(0, 60);
        EXPECT_TRUE(holds(ended.errors, reason));
        EXPECT_LT(ended.errors.size(), 700U);
        EXPECT_EQ(ended.errors.find('\x1b'), std::string::npos);
    }
}

TEST_F(ProgramTest, PointsAtTheCharacterThatIsWrong) {
    const auto model =
        bus_.startModel(bus_.file("devices.csv", "name,gr\xc3\xb6\xc3\x9f\x65\na,1\n"));
    const Ended ended =
        bus_.shell("kvx query Model 'select gr\xc3\xb6\xc3\x9f\x65, x from devices'");
    EXPECT_TRUE(holds(ended.errors, "devices\n                  ^\n"));
    // A long line is cut between characters.
    std::string longQuery = "select x from devices where ";
    for (int i = 0; i < 40; ++i) longQuery += "gr\xc3\xb6\xc3\x9f\x65=1 or ";
    const Ended cut = bus_.shell("kvx query Model '" + longQuery + "!'");
    EXPECT_TRUE(holds(cut.errors, "\n    \xc3\x9f\x65=1"));
}

TEST_F(ProgramTest, TakesCommonOptionsBeforeAndBehindTheCommand) {
    const std::string daemon = " --daemon " + bus_.daemonText();
    for (const std::string& line :
         {"kvx -v --service 9" + daemon + " send A x=1", "kvx send -v A x=1 --service 9" + daemon,
          "kvx --service 9 send A -v x=1" + daemon}) {
        const Ended ended = bus_.shell(line);
        EXPECT_EQ(ended.status, 0) << line << ended.errors;
        EXPECT_TRUE(holds(ended.errors, "at " + bus_.daemonText() + ", service '9'"));
    }
    EXPECT_EQ(bus_.shell("kvx help query").output, bus_.shell("kvx query --help").output);
    EXPECT_EQ(bus_.shell("kvx help").output, bus_.shell("kvx --help").output);
}

TEST_F(ProgramTest, RefusesStandardInputThatCannotBeRead) {
    for (const std::string source : {"</", "<&-"}) {
        for (const std::string command : {"send A - ", "request A - --opaque "}) {
            const Ended ended = bus_.shell("kvx " + command + source);
            EXPECT_EQ(ended.status, 1) << ended.errors;
            EXPECT_TRUE(holds(ended.errors, "kvx: standard input: "));
        }
    }
    const Ended large = bus_.shell("head -c 70000000 /dev/zero | kvx send A - --opaque");
    EXPECT_EQ(large.status, 1);
    EXPECT_TRUE(holds(large.errors, "64 MiB"));
    EXPECT_EQ(bus_.shell("kvx send A - </dev/null").status, 0);
    const Ended binary = bus_.shell("printf 'a\\0b' | kvx send A -");
    EXPECT_EQ(binary.status, 1);
    EXPECT_TRUE(holds(binary.errors, "--opaque"));
    EXPECT_EQ(bus_.shell("printf 'a\\0b' | kvx send A - --opaque").status, 0);
}

TEST_F(ProgramTest, FailsWithSubjectsThatAreNoneAndWithoutAnAnswer) {
    const Ended ended = bus_.shell("kvx send A x=1 --reply B..C");
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(holds(ended.errors, "'B..C'"));
    for (const std::string line : {"listen A..B", "send A..B x=1", "request A --timeout 0.1 x=1"}) {
        EXPECT_EQ(bus_.shell("kvx " + line).status, 1) << line;
    }
    EXPECT_EQ(bus_.shell("kvx send A x=1 --reply B.C").status, 0);
}

TEST_F(ProgramTest, EndsWithItsTerminalUnlessToldNotTo) {
    const auto ending = bus_.startShell("exec kvx listen -v A");
    const auto staying = bus_.startShell("trap '' HUP; exec kvx listen -v A --count 1");
    for (const auto* listener : {&ending, &staying}) {
        EXPECT_NE((*listener)->awaitError("listening"), "");
        (*listener)->kill(SIGHUP);
    }
    ASSERT_TRUE(eventually([&] { return !ending->isRunning(); }));
    EXPECT_EQ(ending->wait(), 0);
    EXPECT_EQ(bus_.kvx({"send", "A", "x=1"}).status, 0);
    EXPECT_EQ(staying->wait(), 0);
    EXPECT_EQ(staying->output(), "A - { x=\"1\"}\n");
}

TEST_F(ProgramTest, ShowsNoControlCharacterOfAMessage) {
    const std::string feeder = "send A 'x=\x1b[31m\n\xc2\x9b\x9b\xc3\xa9'";
    const Ended text = fed("kvx listen A --count 1", feeder);
    EXPECT_EQ(text.output, "A - { x=\" [31m    \xc3\xa9\"}\n");
    const Ended json =
        fed("kvx listen A --count 1 --json", "send A 'x=\x1b[31m\n\xc2\x9b\xc3\xa9'");
    EXPECT_TRUE(holds(json.output, R"("value":"\u001b[31m\n\u009b)")) << json.output;
}

TEST_F(ProgramTest, PacesLargeMessagesByTheirBytes) {
    const Daemon small({"-queue-limit", "4M"});
    const std::string daemon = " --daemon " + small.text();
    const Ended bench = bus_.shell("kvx bench --messages 60 --requests 5 --bytes 1000000" + daemon);
    EXPECT_EQ(bench.status, 0) << bench.errors;
    EXPECT_TRUE(holds(bench.output, "60 messages of 1000000 bytes"));
    EXPECT_TRUE(holds(bench.output, "5 round trips of 1000000 bytes"));
    EXPECT_TRUE(holds(bench.output, "5 messages of 1000000 bytes one way"));
    EXPECT_EQ(countOf(bench.output, ", ratio "), 3) << bench.output;
    const Ended sent =
        bus_.shell("head -c 1000000 /dev/zero | kvx send A - --opaque --repeat 200" + daemon);
    EXPECT_EQ(sent.status, 0) << sent.errors;
}

TEST_F(ProgramTest, SaysWhyAMessageDoesNotLeave) {
    const auto sender = bus_.startShell("exec kvx -v send A x=1 --repeat 1000000000");
    EXPECT_NE(sender->awaitError("session"), "");
    bus_.daemon().pause();
    EXPECT_EQ(sender->wait(), 1);
    EXPECT_TRUE(holds(sender->errors(), "did not leave: nothing has moved for 10 s\n"));
}

TEST_F(ProgramTest, TellsOfLostMessages) {
    const Daemon small({"-queue-limit", "64k"});
    const std::string daemon = " --daemon " + small.text();
    const auto listener = bus_.startShell("exec kvx listen A --count 150000" + daemon);
    ASSERT_TRUE(eventually([&] {
        bus_.shell("kvx send A x=1" + daemon);
        return !listener->output().empty();
    }));
    listener->kill(SIGSTOP);
    EXPECT_EQ(bus_.shell("kvx send A --repeat 140000 x=12345678901234567890" + daemon).status, 0);
    listener->kill(SIGCONT);
    EXPECT_NE(listener->awaitError("kvx: lost "), "");
    ASSERT_TRUE(eventually([&] {
        bus_.shell("kvx send A --repeat 10000 x=1" + daemon);
        return !listener->isRunning();
    }));
    EXPECT_EQ(listener->wait(), 1);
    EXPECT_TRUE(holds(listener->errors(), " messages in all\n"));
    const auto lines = listener->output();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 150000);
}

TEST_F(ProgramTest, TellsOfTheDaemonsLossAndEndsAtOnceMeanwhile) {
    const auto listener = bus_.startShell("exec kvx listen A");
    const auto staying = bus_.startShell("exec kvx listen A --count 1");
    std::vector<std::unique_ptr<ChildProcess>> waiting;
    for (const char* line :
         {"exec kvx -v query Model x --timeout 600", "exec kvx -v bench --messages 100000000",
          "exec kvx -v request NOBODY x=1 --timeout 600", "exec kvx -v services --wait 600"}) {
        waiting.push_back(bus_.startShell(line));
        EXPECT_NE(waiting.back()->awaitError("session"), "");
    }
    ASSERT_TRUE(eventually([&] {
        bus_.kvx({"send", "A", "x=1"});
        return !listener->output().empty() && !staying->isRunning();
    }));
    const auto back = bus_.startShell("exec kvx listen -v A --count 1");
    EXPECT_NE(back->awaitError("listening"), "");

    bus_.daemon().kill();
    for (const auto& child : waiting) {
        EXPECT_EQ(child->wait(), 1);
        EXPECT_TRUE(holds(child->errors(), "kvx: the bus daemon is lost (" + bus_.daemonText()));
    }
    EXPECT_NE(listener->awaitError("the bus daemon is lost"), "");
    const auto begin = std::chrono::steady_clock::now();
    listener->kill(SIGINT);
    EXPECT_EQ(listener->wait(), 0);
    // Well before a round of attempts to connect is over, which takes 6 s.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));

    bus_.daemon().restart();
    EXPECT_NE(back->awaitError("kvx: the bus daemon is back (" + bus_.daemonText()), "");
    ASSERT_TRUE(eventually([&] {
        bus_.kvx({"send", "A", "x=1"});
        return !back->isRunning();
    }));
    EXPECT_EQ(back->wait(), 0);
}

TEST_F(ProgramTest, NamesTheAddressThatItTried) {
    for (const std::string address : {"tcp:none.invalid:1", "udp:1", "-"}) {
        const Ended ended = bus_.kvx({"query", "Model", "x", "--daemon", address});
        EXPECT_EQ(ended.status, 1);
        EXPECT_TRUE(holds(ended.errors, address));
        EXPECT_FALSE(holds(ended.errors, "no answer"));
    }
}

TEST_F(ProgramTest, StartsADaemonWhereItMayAndSaysSo) {
    const std::string port = [] {
        const Daemon ended;
        return "tcp:" + std::to_string(ended.port());
    }();
    for (const std::string& address : {port, "unix:" + bus_.path("own")}) {
        const std::string command = "kvx services --wait 0.1 --daemon " + address;
        const Ended refused = bus_.shell("KVX_START_DAEMON=0 " + command);
        EXPECT_FALSE(holds(refused.errors, "started a bus"));
        EXPECT_TRUE(holds(refused.errors, "KVX_START_DAEMON is 0"));
        EXPECT_EQ(refused.status, 1);
        const Ended started =
            bus_.shell(command + "; ended=$?; for process in /proc/[0-9]*; do tr '\\0' ' ' " +
                       "<$process/cmdline | grep -q '^rvd -listen " + address +
                       " ' && kill ${process#/proc/}; done; exit $ended");
        EXPECT_TRUE(holds(started.errors, "kvx: started a bus daemon at " + address));
        EXPECT_EQ(started.status, 0);
    }
}

TEST_F(ProgramTest, ShowsItsProgressOnATerminalOnly) {
    const std::string query = "kvx query Model x --timeout 1.5";
    EXPECT_EQ(bus_.shell(query).errors, "kvx: no answer from Model within 1.5 s\n");
    const Ended terminal = bus_.shell("script -qec '" + query + "' /dev/null");
    EXPECT_EQ(terminal.status, 1);
    EXPECT_TRUE(
        holds(terminal.output, "kvx: waiting for Model, 0 packets so far\r\x1b[Kkvx: no answer"))
        << terminal.output;
}

}  // namespace
}  // namespace kvx::test
