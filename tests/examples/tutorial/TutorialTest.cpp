// The programs of the tutorial do what its text says they do.

#include <gtest/gtest.h>

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

class TutorialTest : public ::testing::Test {
  protected:
    std::unique_ptr<ChildProcess> startStep(const std::string& step,
                                            const std::vector<std::string>& arguments = {}) {
        auto program = bus_.start(step, arguments);
        EXPECT_EQ(program->awaitOutput("ready"), "ready") << program->errors();
        return program;
    }

    void report(const std::string& name, const std::string& state) {
        EXPECT_EQ(
            bus_.kvx({"send", "DEVICE.STATE.DEFAULT", "name=" + name, "state=" + state}).status, 0);
    }

    // Asks until the service says so: a report and a question travel on different ways.
    bool knows(const std::string& device, const std::string& state) {
        return eventually([&] {
            const Ended answer = bus_.kvx({"query", "Status", device, "--csv", "--timeout", "0.5"});
            return answer.output == "name,state\n" + device + "," + state + "\n";
        });
    }

    static void end(ChildProcess& program) {
        program.kill(SIGTERM);
        EXPECT_EQ(program.wait(), 0);
    }

    Installation bus_;
};

TEST_F(TutorialTest, AnswersThenNotifies) {
    const auto answering = startStep("step1_answer");
    EXPECT_TRUE(knows("edge-1", "down"));
    EXPECT_NE(bus_.kvx({"query", "Status", "edge-2"}).output.find("Query has zero matches"),
              std::string::npos);
    end(*answering);

    const auto notifying = startStep("step2_notify");
    const auto listener =
        bus_.start("kvx", {"listen", "ZEMBRALIX.3.0.STAT.NOTIFY.DEFAULT", "--count", "1"});
    EXPECT_TRUE(eventually([&] {
        report("core-1", "up");
        report("core-1", "down");
        return !listener->isRunning();
    }));
    EXPECT_TRUE(knows("core-1", "down"));
    end(*notifying);
}

TEST_F(TutorialTest, SurvivesItsPrimary) {
    const auto first = startStep("step3_redundant");
    const auto second = startStep("step3_redundant");
    EXPECT_TRUE(eventually([&] {
        return (first->output() + second->output()).find("Becoming Primary") != std::string::npos;
    }));
    report("core-1", "up");
    EXPECT_TRUE(knows("core-1", "up"));
    const bool firstLeads = first->output().find("Becoming Primary") != std::string::npos;
    (firstLeads ? first : second)->kill(SIGKILL);
    EXPECT_TRUE(knows("core-1", "up"));
    end(firstLeads ? *second : *first);
}

TEST_F(TutorialTest, PollsForTheSilent) {
    const auto polling = startStep("step4_poll", {"300"});
    report("core-1", "up");
    EXPECT_TRUE(knows("core-1", "silent"));
    end(*polling);
}

}  // namespace
}  // namespace kvx::test
