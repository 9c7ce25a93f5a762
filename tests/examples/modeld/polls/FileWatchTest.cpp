#include "examples/modeld/polls/FileWatch.h"

#include "tests/support/TemporaryDirectory.h"

namespace modeld {
namespace {

struct FileWatchTest : testing::Test {
    void write(const std::string& name, const std::string& content) {
        std::ofstream(directory_.file(name), std::ios::binary) << content;
    }

    kvx::test::TemporaryDirectory directory_;
};

TEST_F(FileWatchTest, SeesAChangeOnceItRestsAndUntilItIsKnown) {
    write("a", "1");
    write("b", "1");
    FileWatch watch({directory_.file("a"), directory_.file("b")});
    EXPECT_FALSE(watch.look());
    write("b", "22");
    EXPECT_FALSE(watch.look()) << "it may still be written";
    write("b", "333");
    EXPECT_FALSE(watch.look()) << "it was";
    EXPECT_TRUE(watch.look());
    EXPECT_TRUE(watch.look()) << "nobody said that it is known";
    watch.know();
    EXPECT_FALSE(watch.look());
}

TEST_F(FileWatchTest, SeesAFileOfTheSameSizeInAnothersPlace) {
    write("a", "1");
    write("new", "2");
    const std::string path = directory_.file("a");
    const std::string next = directory_.file("new");
    FileWatch watch({path});
    std::filesystem::last_write_time(next, std::filesystem::last_write_time(path));
    std::filesystem::rename(next, path);
    EXPECT_FALSE(watch.look());
    EXPECT_TRUE(watch.look());
}

TEST_F(FileWatchTest, WaitsForAFileThatIsGoneAndLeavesALaterChangeUnknown) {
    write("a", "1");
    FileWatch watch({directory_.file("a")});
    std::filesystem::remove(directory_.file("a"));
    EXPECT_FALSE(watch.look());
    ASSERT_EQ(watch.turns().size(), 1U);
    EXPECT_FALSE(watch.turns()[0].isThere);
    EXPECT_TRUE(watch.isSettled());
    EXPECT_FALSE(watch.look());
    EXPECT_TRUE(watch.turns().empty()) << "told already";
    write("a", "22");
    EXPECT_FALSE(watch.look());
    ASSERT_EQ(watch.turns().size(), 1U);
    EXPECT_TRUE(watch.turns()[0].isThere);
    EXPECT_FALSE(watch.isSettled()) << "what it holds now is not known";
    EXPECT_TRUE(watch.look());
    write("a", "333");
    watch.know();
    EXPECT_FALSE(watch.look());
    EXPECT_TRUE(watch.look()) << "changed between the look and the knowing";
}

}  // namespace
}  // namespace modeld
