// Recordings as people use them: copied from the daemon, printed, sent again.

#include <nlohmann/json.hpp>

#include "platform/MappedFile.h"
#include "rv/recording/RecordingReader.h"
#include "tests/system/Installation.h"

namespace kvx::tool {
namespace {

using nlohmann::json;
using test::Ended;
using test::holds;
using test::Installation;

class RecordingCommands : public ::testing::Test {
  protected:
    std::string kvx(const std::string& line, int status = 0) {
        const Ended ended = bus_.shell("kvx " + line);
        EXPECT_EQ(ended.status, status) << line << ended.errors;
        return status == 0 ? ended.output : ended.errors;
    }
    static std::vector<json> linesOf(const std::string& text) {
        std::vector<json> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
        return lines;
    }
    // Of a time such as 2026-01-31T12:00:00.123456Z, within its day.
    static double secondsOf(const json& message) {
        const std::string time = message["time"];
        return 3'600 * std::stod(time.substr(11, 2)) + 60 * std::stod(time.substr(14, 2)) +
               std::stod(time.substr(17));
    }

    Installation bus_;
    test::TemporaryDirectory directory_;
    const std::string ring_ = directory_.file("ring");
    const std::string file_ = directory_.file("file");
    test::Daemon recorded_{{"-recorder", "1M", "-recorder-file", ring_, "-recorder-bytes", "1k"}};
    const std::string there_ = " --daemon " + recorded_.text() + " ";
};

TEST_F(RecordingCommands, CopyPrintAndSendAgainInOrderAndWithTheirSpacing) {
    for (int i = 0; i < 5; ++i) kvx("send WORK.A n:i32=" + std::to_string(i) + there_);
    kvx("send WORK.B text=other --reply BACK" + there_);
    kvx("send OTHER a=1 --service 9" + there_);
    const std::string blob = bus_.file("blob", std::string(3'000, 'x'));
    kvx("send LONG - < " + blob + there_);
    kvx("record " + file_ + there_);
    const auto all = linesOf(kvx("dump --json " + file_));
    ASSERT_EQ(all.size(), 8U);
    EXPECT_EQ(all[3]["fields"][0]["value"], 3);
    EXPECT_EQ(all[5]["reply"], "BACK");
    EXPECT_EQ(all[6]["service"], "9");
    EXPECT_FALSE(all[7].contains("value")) << "only its beginning was kept";
    EXPECT_EQ(all[7]["kept"], 1'024);
    EXPECT_TRUE(holds(kvx("dump " + ring_ + " --subject 'WORK.*'"), "7500 WORK.A - { n=0}"))
        << "of a daemon that runs";
    EXPECT_EQ(linesOf(kvx("dump --json " + file_ + " --space 9")).size(), 1U);

    const auto listener = bus_.start("kvx", {"listen", ">", "--json", "--count", "7"});
    ASSERT_TRUE(
        test::eventually([&] { return kvx("trace LONG").find("LISTEN") != std::string::npos; }));
    const Ended replayed = bus_.shell("kvx replay --json --speed 0.5 " + file_);
    EXPECT_EQ(replayed.status, 1) << "one is not sent";
    const auto sent = json::parse(replayed.output);
    EXPECT_EQ(sent["sent"], 7);
    EXPECT_EQ(sent["cut"], 1);
    EXPECT_EQ(listener->wait(), 0) << listener->errors();
    const auto heard = linesOf(listener->output());
    for (std::size_t i = 0; i < heard.size(); ++i) {
        EXPECT_EQ(heard[i]["subject"], all[i]["subject"]);
        EXPECT_EQ(heard[i]["reply"], all[i]["reply"]);
        EXPECT_EQ(heard[i]["fields"], all[i]["fields"]);
    }
    const double spacing = secondsOf(all[7]) - secondsOf(all[0]);
    EXPECT_GE(sent["seconds"].get<double>(), 2 * spacing - 0.01);
    EXPECT_LE(sent["seconds"].get<double>(), 2 * spacing + 1);
    EXPECT_LT(json::parse(kvx("replay --json --speed 0 --subject WORK.A " + file_))["sent"], 6);
}

// Several senders: what is read first is not always routed first.
TEST_F(RecordingCommands, TakeNoLongerWhereTimesGoBackALittle) {
    kvx("send A a=1" + there_);
    kvx("record " + file_ + there_);
    recording::RecordingReader reader(file_);
    auto entry = reader.next().value();
    const std::string several = directory_.file("several");
    {
        std::string error;
        const auto file = platform::MappedFile::create(several, 1U << 20U, error);
        recording::RecordingWriter writer(file.bytes(), 1, entry.time);
        const std::uint64_t begin = entry.time;
        for (std::uint64_t i = 0; i < 1'000; ++i) {
            entry.time = begin + (i % 2 == 0 ? i : i + 900) * 1'000'000;
            writer.add(entry);
        }
    }
    const auto sent = json::parse(kvx("replay --json " + several));
    EXPECT_EQ(sent["sent"], 1'000);
    EXPECT_GE(sent["seconds"].get<double>(), 1.8);
    EXPECT_LE(sent["seconds"].get<double>(), 60) << "the steps forward alone are 450 seconds";
}

TEST_F(RecordingCommands, SayWhatIsWrong) {
    EXPECT_TRUE(holds(kvx("record " + file_, 1), "the daemon records nothing"));
    EXPECT_TRUE(holds(kvx("record " + file_ + there_, 1), "has no such message"));
    kvx("send A a=1" + there_);
    EXPECT_TRUE(holds(kvx("record " + ring_ + there_, 1), "File exists"));
    EXPECT_TRUE(holds(kvx("replay " + ring_ + " --subject B", 1), "has no such message"));
    const test::Daemon other({"-recorder", "1M", "-recorder-file", ring_});
    EXPECT_TRUE(holds(kvx("record " + file_ + there_, 1), "another daemon has that path"));
    for (const char* command : {"dump ", "replay ", "record x --from "}) {
        EXPECT_TRUE(holds(kvx(command + bus_.file("short", "KVXREC01"), 1), "it is no recording"));
        kvx(command + directory_.path(), 1);
        kvx(command + std::string("/dev/zero"), 1);
        kvx(command + ring_ + " --subject A..B", 2);
    }
    kvx("replay --speed -1 " + ring_, 2);
    kvx("replay --speed nan " + ring_, 2);
    kvx("replay --subject '' " + ring_, 2);
    kvx("record x --from ''", 2);
}

}  // namespace
}  // namespace kvx::tool
