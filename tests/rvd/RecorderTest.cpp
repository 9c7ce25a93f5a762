// A daemon that records, killed, restarted, refused; what its file has.

#include <sys/stat.h>

#include "rv/recording/RecordFormat.h"
#include "rv/recording/RecordingReader.h"
#include "tests/support/Daemon.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/RawClient.h"

namespace kvx::test {
namespace {

class Recording : public testing::Test {
  protected:
    [[nodiscard]] std::vector<std::string> options(const std::string& size) const {
        return {"-recorder", size, "-recorder-file", path_, "-recorder-bytes", "1M"};
    }
    // The texts of the messages on that subject.
    static std::vector<std::string> textsIn(const std::string& path, const std::string& subject) {
        recording::RecordingReader reader(path);
        EXPECT_EQ(reader.problem(), "");
        std::vector<std::string> texts;
        while (const auto entry = reader.next()) {
            if (entry->subject.text() != subject) continue;
            EXPECT_TRUE(recording::isWholeMessage(*entry));
            EXPECT_EQ(entry->service, "7500");
            texts.push_back(readData(entry->message).text);
        }
        EXPECT_EQ(reader.damaged(), 0U);
        return texts;
    }
    // Whether a recording is there whose name nobody has given.
    static bool hasOwnName(const std::string& directory) {
        return std::ranges::any_of(
            std::filesystem::directory_iterator(directory),
            [](const auto& entry) { return entry.path().extension() == ".ring"; });
    }
    // The daemon ends at once; what it says.
    static std::string refusal(std::vector<std::string> options) {
        options.insert(options.begin(), {"-listen", "tcp:0"});
        ChildProcess daemon(KVX_RVD_PROGRAM, options);
        EXPECT_NE(daemon.wait(), 0);
        return daemon.errors();
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.file("ring");
};

TEST_F(Recording, HasWhatWasSentUpToTheMomentWhenTheDaemonWasKilled) {
    Daemon daemon(options("1M"));
    RawClient listener = RawClient::session(daemon.port());
    listener.listen("WORK");
    listener.settle();
    RawClient sender = RawClient::session(daemon.port());
    std::atomic<bool> isOver = false;
    std::thread stream([&] {
        // The socket breaks when the daemon is killed.
        for (int i = 0; !isOver; ++i) sender.publish("WORK", std::to_string(i));
    });
    int heard = 0;
    while (heard < 20'000) heard = std::stoi(listener.expectText());
    daemon.kill();
    isOver = true;
    stream.join();
    const auto texts = textsIn(path_, "WORK");
    ASSERT_GT(texts.size(), 1'000U);
    const int first = std::stoi(texts.front());
    EXPECT_GT(first, 0) << "the ring has turned";
    EXPECT_GE(std::stoi(texts.back()), heard);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        ASSERT_EQ(texts[i], std::to_string(first + static_cast<int>(i)));
    }
}

TEST_F(Recording, KeepsTheFileOfTheFormerRunAndTakesNoOtherOne) {
    {
        Daemon daemon(options("64k"));
        RawClient sender = RawClient::session(daemon.port());
        sender.publish("WORK", "first");
        sender.settle();
        struct stat status {};
        ASSERT_EQ(stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
        daemon.restart();
        RawClient later = RawClient::session(daemon.port());
        later.publish("WORK", "second");
        later.settle();
        EXPECT_EQ(textsIn(path_ + ".1", "WORK"), std::vector<std::string>{"first"});
        EXPECT_EQ(textsIn(path_, "WORK"), std::vector<std::string>{"second"}) << "while it runs";
        ASSERT_EQ(daemon.replace(), "");
        later.publish("WORK", "third");
        later.settle();
        EXPECT_EQ(textsIn(path_, "WORK"), (std::vector<std::string>{"second", "third"}));
    }
    {
        const EnvironmentVariable supervised("RUNTIME_DIRECTORY", directory_.path() + ":/nowhere");
        const Daemon daemon({"-recorder", "64k"});
        EXPECT_TRUE(eventually([&] { return hasOwnName(directory_.path()); }));
    }
    std::ofstream(path_ + ".1") << "notes";
    EXPECT_NE(refusal(options("64k")).find("cannot record in " + path_ + ".1"), std::string::npos);
    EXPECT_EQ(contentOf(path_ + ".1"), "notes");
    std::ofstream(path_) << "something else";
    EXPECT_NE(refusal(options("64k")).find("cannot record in " + path_), std::string::npos);
    EXPECT_EQ(contentOf(path_), "something else");
    for (const char* none : {"1k", ""}) {
        EXPECT_NE(refusal({"-recorder", none}).find("no size of a recording"), std::string::npos);
    }
    EXPECT_NE(refusal({"-recorder-file", path_}).find("-recorder"), std::string::npos);
    EXPECT_NE(refusal({"-recorder", "1M", "-recorder-file", directory_.file("no/where")}), "");
}

}  // namespace
}  // namespace kvx::test
