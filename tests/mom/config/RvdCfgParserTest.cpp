// The configuration file as the session start-up reads it: values, errors and their lines, and what
// a parse that stops early leaves to the next one.

#include "mom/config/CVekRvdCfgParser.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/OutputHook.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {
namespace {

std::string textOf(const CVekAtom* atom) {
    return atom != nullptr ? atom->RAString() : "(none)";
}

// What a text says, and what the parser says about it.
struct Parsed {
    int result = 0;
    std::string service, network, daemon, agentPort;
    std::string errors;    // standard output
    std::string warnings;  // standard error
};

Parsed parse(std::string text) {
    CVekRvdCfgParser parser;
    Parsed parsed;
    parser.RRCPSetParseBuffer(text.data());
    parsed.warnings = errorOutputOf(
        [&] { parsed.errors = outputOf([&] { parsed.result = parser.RRCPParseRvdCfg(); }); });
    parsed.service = textOf(parser.RRCPGetService());
    parsed.network = textOf(parser.RRCPGetNetwork());
    parsed.daemon = textOf(parser.RRCPGetDaemon());
    parsed.agentPort = textOf(parser.RRCPGetRVAPort());
    return parsed;
}

std::string serviceBlock(const std::string& value) {
    return "rendezvous session = { \"service\" = \"" + value + "\" };\n";
}

std::string errorAtLine(int line) {
    return "Calvorine.rvd.cfg Parser error: parse error line : " + std::to_string(line) + "\n";
}

TEST(RvdCfgParser, ReadsEveryKeyInEitherKindOfQuotesAndWarnsOfOthers) {
    const Parsed parsed = parse(
        "-- daemon settings\n"
        "rendezvous session = { \"service\" = \"7500\", 'network' = ';239.1.1.1',\n"
        "                       \"daemon\" = 'tcp:7500' }; // the usual\n"
        "# the agent\n"
        "rendezvous session for host \"localhost\" = { 'rva' = '7600' };");
    EXPECT_EQ(parsed.result, 1);
    EXPECT_EQ(parsed.service, "7500");
    EXPECT_EQ(parsed.network, ";239.1.1.1");
    EXPECT_EQ(parsed.daemon, "tcp:7500");
    EXPECT_EQ(parsed.agentPort, "7600");
    EXPECT_EQ(parsed.errors + parsed.warnings, "");
    for (const char* text : {"", " \t\r\n", "-- a\n// b\n# c\n"}) {
        EXPECT_EQ(parse(text).service + parse(text).errors, "(none)") << text;
    }
    EXPECT_EQ(parse("rendezvoussession={'service'='1'};").service, "1");
    const Parsed unknown =
        parse("rendezvous session = { 'bogus' = 'x', 'Service' = '1', 'service' = '2' };");
    EXPECT_EQ(unknown.result, 1);
    EXPECT_EQ(unknown.warnings, "bogus not a valid service\nService not a valid service\n");
    EXPECT_EQ(unknown.service, "2");
}

TEST(RvdCfgParser, AppliesBlocksForThisHostInFileOrder) {
    const std::string here = CVekEnv().RELocalHost();
    const auto blockFor = [](const std::string& host, const std::string& value) {
        return "rendezvous session for host '" + host + "' = { 'service' = '" + value + "' };\n";
    };
    EXPECT_EQ(parse(serviceBlock("1") + blockFor(here, "2")).service, "2");
    EXPECT_EQ(parse(blockFor(here, "2") + serviceBlock("1")).service, "1");
    EXPECT_EQ(parse(serviceBlock("1") + blockFor("localhost", "3")).service, "3");
    EXPECT_EQ(parse(serviceBlock("1") + blockFor("LocalHost", "4")).service, "1");
    EXPECT_EQ(parse(serviceBlock("1") + blockFor(here + "-not", "5")).service, "1");
}

TEST(RvdCfgParser, KeepsAQuoteBehindABackslashAsItStands) {
    EXPECT_EQ(parse(R"(rendezvous session = { "service" = "a\"b" };)").service, R"(a\"b)");
    EXPECT_EQ(parse(R"(rendezvous session = { 'service' = '\'\'' };)").service, R"(\'\')");
    EXPECT_EQ(parse(R"(rendezvous session = { "service" = "\\" };)").service, "(none)");
    EXPECT_EQ(parse("rendezvous session = { 'service' = '' };").service, "");
    const std::string longText(20000, 'v');
    EXPECT_EQ(parse(serviceBlock(longText + "\\\"" + longText)).service,
              longText + "\\\"" + longText);
}

TEST(RvdCfgParser, ReportsAnErrorWithItsLineAndDropsOnlyItsBlock) {
    struct Case {
        std::string text;
        int line;
        std::string service;
    };
    const std::vector<Case> cases = {
        {"rendezvous session = { };\n" + serviceBlock("1"), 1, "1"},
        {serviceBlock("1") + serviceBlock("2") + serviceBlock("3") + "oops\n", 4, "3"},
        {"rendezvous session = { 'network' = 'two\nlines' };\noops", 2, "(none)"},
        {"-- a\n\nRendezvous session = { 'service' = '1' };\n" + serviceBlock("2"), 3, "2"},
        {"rendezvous session = { 'service' = '1', };\n", 1, "(none)"},
        {serviceBlock("1") + "rendezvous session = { 'service' = '2' }\n", 3, "1"},
        {serviceBlock("1") + "# no newline", 2, "1"},
        {"rendezvous session = { 'service' = 'open };\n", 1, "(none)"},
        {"rendezvous session = { 'service' = \"a\\\" };\n" + std::string(9000, ' '), 1, "(none)"},
    };
    for (const Case& one : cases) {
        const Parsed parsed = parse(one.text);
        EXPECT_EQ(parsed.result, 1) << one.text;
        EXPECT_EQ(parsed.errors, errorAtLine(one.line)) << one.text;
        EXPECT_EQ(parsed.service, one.service) << one.text;
    }
    // A further error only after three good tokens.
    EXPECT_EQ(parse("x y z\n rendezvous x\n rendezvous session x").errors, errorAtLine(1));
    EXPECT_EQ(parse("x\n rendezvous session = x").errors, errorAtLine(1) + errorAtLine(2));
    // In a time in proportion to the length of the line.
    const Parsed signs = parse(serviceBlock("1") + std::string(4 << 20, '#'));
    EXPECT_EQ(signs.service, "1");
    EXPECT_EQ(signs.errors, errorAtLine(2));
}

TEST(RvdCfgParser, KeepsTheFirstErrorOfItsLastParseWithTheFile) {
    const TemporaryDirectory directory;
    std::string path = directory.file("rvd.cfg");
    std::ofstream(path) << serviceBlock("1") << "oops\n" << serviceBlock("2") << "oops\n";
    CVekRvdCfgParser parser;
    EXPECT_STREQ(parser.RRCPGetError(), "");
    outputOf([&] { parser.RRCPParseFromFilename(path.data()); });
    EXPECT_EQ(parser.RRCPGetError(), path + ":2: parse error");
    std::ofstream(path) << serviceBlock("1");
    parser.RRCPParseFromFilename(path.data());
    EXPECT_STREQ(parser.RRCPGetError(), "");
    EXPECT_EQ(textOf(parser.RRCPGetService()), "1");
}

TEST(RvdCfgParser, EndsQuietlyAtAByteAbove127AndLeavesTheRestToTheNextParse) {
    const Parsed first = parse(serviceBlock("1") + "\xC3rendezvous session = { 'network' = 'n' };");
    EXPECT_EQ(first.service, "1");
    EXPECT_EQ(first.network, "(none)");
    EXPECT_EQ(first.errors, "");
    const Parsed second = parse("\n" + serviceBlock("2") + "oops");
    EXPECT_EQ(second.network, "n");
    EXPECT_EQ(second.service, "2");
    EXPECT_EQ(second.errors, errorAtLine(3));
    EXPECT_EQ(parse(serviceBlock("3")).network, "(none)");
    const std::string beyondTheScanner(3 * 8192, ' ');
    parse("\xFF# left over" + beyondTheScanner + serviceBlock("lost"));
    const Parsed next = parse("\n" + serviceBlock("2"));
    EXPECT_EQ(next.service, "2");
    EXPECT_EQ(next.errors, "");
    parse("'open \xFF");
    EXPECT_EQ(parse(serviceBlock("1")).service, "1");
    parse("# open \xFF");
    EXPECT_EQ(parse("#\n" + serviceBlock("2")).service, "2");
}

TEST(RvdCfgParser, ReadsAFileUpToItsFirstNulAndRefusesWhatItCannotRead) {
    CVekRvdCfgParser parser;
    EXPECT_EQ(parser.RRCPParseRvdCfg(), -220552);
    EXPECT_EQ(parser.RRCPParseFromFilename(nullptr), -220552);
    const TemporaryDirectory directory;
    std::string missing = directory.file("missing.cfg");
    std::string text = serviceBlock("1");
    parser.RRCPSetParseBuffer(text.data());
    EXPECT_EQ(parser.RRCPParseFromFilename(missing.data()), -220549);
    EXPECT_STREQ(parser.RRCPGetParseBuffer(), text.c_str());
    std::string huge = directory.file("huge.cfg");
    std::ofstream(huge).close();
    std::filesystem::resize_file(huge, (std::uintmax_t{64} << 20U) + 1);
    EXPECT_EQ(parser.RRCPParseFromFilename(huge.data()), -220549);
    EXPECT_STREQ(parser.RRCPGetParseBuffer(), text.c_str());
    parser.RRCPSetParseBuffer(nullptr);
    EXPECT_EQ(parser.RRCPGetParseBuffer(), nullptr);
    std::string path = directory.file("rvd.cfg");
    std::ofstream(path) << serviceBlock("1") << '\0' << serviceBlock("2");
    EXPECT_EQ(parser.RRCPParseFromFilename(path.data()), 1);
    EXPECT_EQ(textOf(parser.RRCPGetService()), "1");
}

// What is written while a file is parsed runs code of the program.
TEST(RvdCfgParser, LeavesNothingBehindWhenItsOutputThrows) {
    std::string text = "oops\n" + serviceBlock("1") + "oops\n" + serviceBlock("2");
    CVekRvdCfgParser parser(text.data());
    {
        const DebugLevel level(4);
        const OutputHook hook([] { throw std::runtime_error("disk full"); });
        EXPECT_EQ(parser.RRCPParseRvdCfg(), 1);
    }
    EXPECT_EQ(textOf(parser.RRCPGetService()), "2");
    const Parsed next = parse("rendezvous session = { 'network' = 'n' };");
    EXPECT_EQ(next.service + next.network + next.errors, "(none)n");
}

TEST(RvdCfgParser, ParsesInsideTheReportOfAnotherParse) {
    std::string outer = "oops\n" + serviceBlock("outer");
    std::string inner = "oops\n" + serviceBlock("inner");
    CVekRvdCfgParser parser(outer.data());
    CVekRvdCfgParser nested(inner.data());
    int depth = 0;
    {
        const OutputHook hook([&] {
            if (depth++ > 0) return;
            EXPECT_EQ(nested.RRCPParseRvdCfg(), 1);
        });
        EXPECT_EQ(parser.RRCPParseRvdCfg(), 1);
    }
    EXPECT_EQ(textOf(parser.RRCPGetService()) + textOf(nested.RRCPGetService()), "outerinner");
}

TEST(RvdCfgParser, LetsThreadsWaitForOneAnother) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            const std::string mine = std::to_string(i);
            for (int round = 0; round < 200; ++round) {
                std::string text = serviceBlock(mine);
                CVekRvdCfgParser parser(text.data());
                EXPECT_EQ(parser.RRCPParseRvdCfg(), 1);
                EXPECT_EQ(textOf(parser.RRCPGetService()), mine);
            }
        });
    }
    for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace kvx::test
