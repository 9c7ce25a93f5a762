// What people see of the daemon: status, sessions, subjects, trace, why-slow and top.

#include <nlohmann/json.hpp>

#include "tests/support/ScriptedDaemon.h"
#include "tests/system/Installation.h"
#include "tools/kvx/TopView.h"

namespace kvx::tool {
namespace {

using test::ChildProcess;
using test::Ended;
using test::holds;
using test::Installation;

class DaemonCommands : public ::testing::Test {
  protected:
    std::string kvx(const std::string& line) {
        const Ended ended = bus_.shell("kvx " + line);
        EXPECT_EQ(ended.status, 0) << line << ended.errors;
        return ended.output;
    }
    std::string kvxUntil(const std::string& line, const std::string& part) {
        std::string output;
        EXPECT_TRUE(test::eventually([&] { return holds(output = kvx(line), part); })) << output;
        return output;
    }

    Installation bus_;
};

TEST_F(DaemonCommands, ShowWhoListensWhatFlowsAndHowTheDaemonIs) {
    const auto listener = bus_.start("kvx", {"listen", "NEWS.>", "NEWS.ROME"});
    kvxUntil("trace NEWS.ROME", "NEWS.ROME  ");
    EXPECT_TRUE(holds(kvx("trace NEWS.ROME"), "NEWS.>"));
    EXPECT_TRUE(holds(kvx("trace NEWS"), "nobody would get a message on NEWS"));
    kvx("send NEWS.ROME headline=rain degrees:i32=12 --repeat 3");
    const std::string flows = kvx("subjects 'NEWS.>' --shapes");
    EXPECT_TRUE(holds(flows, "3 x {headline:string degrees:i32}"));
    EXPECT_TRUE(holds(kvx("subjects --tree"), "NEWS.ROME"));
    EXPECT_TRUE(holds(kvx("sessions"), "2 sessions"));
    const auto status = nlohmann::json::parse(kvx("status --json"));
    EXPECT_EQ(status["pid"], bus_.daemon().pid());
    EXPECT_TRUE(holds(kvx("status"), "process " + std::to_string(bus_.daemon().pid())));
    EXPECT_TRUE(holds(kvx("why-slow"), "nobody is slow"));
    for (const char* none : {"A..B", "''"}) {
        EXPECT_EQ(bus_.shell(std::string("kvx trace ") + none).status, 2) << none;
    }
}

TEST_F(DaemonCommands, NameWhoHoldsUpMessages) {
    const auto listener = bus_.start("kvx", {"listen", "NEWS"});
    kvxUntil("trace NEWS", "LISTEN");
    listener->kill(SIGSTOP);
    const std::string blob = bus_.file("blob", std::string(1'000'000, 'x'));
    kvx("send NEWS - --repeat 20 < " + blob);
    const std::string waits = kvxUntil("why-slow NEWS", "what to do  it reads nothing");
    EXPECT_TRUE(holds(waits, "and loses none now"));
    EXPECT_TRUE(holds(kvx("sessions"), "messages wait for "));
    const auto status = nlohmann::json::parse(kvx("status --json"));
    EXPECT_GE(status["counters"]["messages_waiting"], 10);
    kvx("send NEWS - --repeat 100 < " + blob);
    const std::string said = kvxUntil("why-slow NEWS", "does not keep up since");
    EXPECT_TRUE(holds(said, "queue full, the last"));
    EXPECT_TRUE(holds(kvx("why-slow OTHER"), "nobody listens to OTHER"));
    EXPECT_TRUE(holds(kvx("sessions"), "1 behind"));
    listener->kill(SIGCONT);
}

TEST_F(DaemonCommands, ReplaceTheDaemonWithoutASessionNoticing) {
    const auto listener = bus_.start("kvx", {"listen", "NEWS"});
    kvxUntil("trace NEWS", "LISTEN");
    const std::size_t before = bus_.daemon().log().size();
    EXPECT_TRUE(holds(kvx("upgrade"), "which has its 2 sessions"));
    EXPECT_EQ(bus_.daemon().awaitReplacement(before), "");
    kvx("send NEWS degrees:i32=12");
    EXPECT_NE(listener->awaitOutput("degrees=12"), "");
    EXPECT_EQ(listener->errors(), "");
}

TEST_F(DaemonCommands, TellHowLongMessagesAreInTheDaemon) {
    const auto listener = bus_.start("kvx", {"listen", "NEWS"});
    kvxUntil("trace NEWS", "LISTEN");
    const std::string over = bus_.path("over");
    const std::string told = bus_.path("told");
    const Ended ended = bus_.shell("{ until test -e " + over +
                                   "; do kvx send NEWS a=1; kvx send OTHER a=1; done; } & "
                                   "until kvx latency NEWS --seconds 2 --json >" +
                                   told + " && grep -q p50_ns " + told + "; do :; done; touch " +
                                   over + "; wait; cat " + told);
    EXPECT_EQ(ended.status, 0) << ended.errors;
    const auto found = nlohmann::json::parse(ended.output);
    ASSERT_GT(found.value("copies", 0), 0) << ended.output;
    EXPECT_LE(found["min_ns"], found["p50_ns"]);
    EXPECT_LE(found["p50_ns"], found["max_ns"]);
    std::uint64_t copies = 0;
    for (const auto& bucket : found["bucket"]) copies += bucket["copies"].get<std::uint64_t>();
    EXPECT_EQ(copies, found["copies"]);
    EXPECT_TRUE(holds(kvx("status"), "latency      p50 "));
    EXPECT_EQ(bus_.shell("kvx latency A..B").status, 2);
    EXPECT_EQ(bus_.shell("kvx latency NEWS --seconds nan").status, 2);
}

TEST_F(DaemonCommands, TopDrawsOnATerminalAndPrintsObjects) {
    const Ended piped = bus_.shell("kvx top");
    EXPECT_EQ(piped.status, 2);
    const auto update = nlohmann::json::parse(kvx("top --json --count 1"));
    EXPECT_EQ(update["sessions"].size(), 1U);
    EXPECT_EQ(update["status"]["pid"], bus_.daemon().pid());
    const Ended strange = bus_.shell("TERM=nothing script -qfec 'kvx top' /dev/null </dev/null");
    EXPECT_EQ(strange.status, 1);
    EXPECT_TRUE(holds(strange.output, "kvx: nothing is known of this kind of terminal"));
    // The keys come once the screen is there.
    const std::string drawn = bus_.path("drawn");
    const Ended live = bus_.shell("{ until grep -q SESSION " + drawn +
                                  "; do :; done; printf /; until grep -q filter: " + drawn +
                                  "; do :; done; printf '\\nq'; } | TERM=xterm script -qfec 'stty "
                                  "rows 24 cols 80; kvx top' " +
                                  drawn);
    EXPECT_EQ(live.status, 0) << live.errors;
}

// Answers every question with `fields`, as a daemon that is damaged, or none, might.
void answerAll(test::PeerLink& link, const RvMsg& fields) {
    link.welcome();
    for (auto message = link.readMessage(); message.size() > kHeaderBytes;
         message = link.readMessage()) {
        const auto reply = test::textOf(message, wire::field::kReturn);
        const auto subject = wire::readRouting(message).subject;
        const auto asked = SubjectView::parse(subject.data(), subject.size());
        if (!reply || !asked || asked->first() != "_RVD") continue;
        link.send(wire::buildData(test::encodedSubject(*reply), nullptr, 0,
                                  {RVMSG_MSG, 0, fields.data()}));
    }
}

// Names are those that any session has given itself: they may hold what a terminal obeys.
TEST_F(DaemonCommands, ShowAnyAnswerWithoutHarm) {
    std::string deep;
    for (int i = 0; i < 1'000'000; ++i) deep += "a.";
    const std::string wild = "\x1b[2J\r\n\xff";
    RvMsg row;
    for (const char* name : {"name", "address", "service", "subject", "listen"}) {
        row.append(name, wild.c_str());
    }
    const std::uint64_t one = 1;
    row.append("behind_ms", RVMSG_UINT, sizeof one, &one);
    row.append("rate", std::numeric_limits<double>::quiet_NaN());
    RvMsg deepRow;
    deepRow.append("subject", deep.c_str());
    RvMsg answer;
    answer.append("part", RVMSG_UINT, sizeof one, &one);
    for (const char* name : {"version", "address", "session", "subject", "match", "memory"}) {
        answer.append(name, wild.c_str());
    }
    for (const char* name : {"address", "session", "subject", "match"}) {
        answer.append(name, RVMSG_MSG, 0, row.data());
    }
    answer.append("subject", RVMSG_MSG, 0, deepRow.data());
    answer.append("last", RVMSG_BOOLEAN, 1, "\1");
    for (const char* command : {"status", "sessions", "subjects", "subjects --tree", "trace A",
                                "why-slow A", "top --json --count 1", "status --json"}) {
        test::ScriptedDaemon daemon([&](test::PeerLink& link) { answerAll(link, answer); });
        const Ended ended =
            bus_.shell(std::string("kvx ") + command + " --daemon " + daemon.text());
        EXPECT_EQ(ended.status, 0) << command << ended.errors;
        EXPECT_EQ(ended.output.find_first_of("\x1b\r"), std::string::npos) << command;
    }
}

TEST(TopView, FitsAnyTerminalSortsAndFilters) {
    TopView::Answers answers;
    for (int i = 0; i < 50; ++i) {
        answers.sessions["session"].push_back({{"number", i},
                                               {"name", "session-" + std::to_string(i)},
                                               {"address", "127.0.0.1:1"},
                                               {"delivered_rate", i},
                                               {"dropped", 50 - i}});
    }
    TopView view;
    for (const std::size_t columns : {0U, 1U, 20U, 80U, 300U}) {
        for (const std::size_t rows : {0U, 1U, 5U, 7U, 24U, 200U}) {
            const auto lines = view.draw(answers, columns, rows);
            EXPECT_LE(lines.size(), std::max<std::size_t>(rows, 1));
            for (const auto& line : lines) EXPECT_LE(line.text.size(), columns);
        }
    }
    const auto firstRow = [&] { return view.draw(answers, 80, 24)[7].text; };
    EXPECT_TRUE(firstRow().starts_with("session-49 "));
    view.press('d');
    EXPECT_TRUE(firstRow().starts_with("session-0 "));
    view.press('r');
    EXPECT_TRUE(firstRow().starts_with("session-49 "));
    for (const int key : std::vector<int>{'/', '-', '7', TopView::Enter}) view.press(key);
    EXPECT_TRUE(firstRow().starts_with("session-7 "));
    EXPECT_TRUE(holds(view.draw(answers, 80, 24).back().text, "1 of 1 with '-7'"));
    view.press(TopView::Escape);
    for (int i = 0; i < 30; ++i) view.press(TopView::PageDown);
    EXPECT_TRUE(holds(view.draw(answers, 80, 24).back().text, "16 of 50"));
    EXPECT_TRUE(view.press('q'));
}

}  // namespace
}  // namespace kvx::tool
