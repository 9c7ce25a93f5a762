// Polls that wait for an answer, and the watch over files.

#include "examples/modeld/polls/BlockingPoll.h"
#include "examples/modeld/polls/FileWatch.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace modeld {
namespace {

constexpr unsigned int kTicks = 50;  // until an answer is given up

// Counts what becomes of it and lets the test bring the answers.
class Asking : public BlockingPoll {
  public:
    Asking(CVekBlockedWorkMgr& blockedWork, const std::string& name) : BlockingPoll(blockedWork) {
        RTWSetName(new CVekAtom(name.c_str()));
        RTWSetFrequency(1);
    }

    void arrive(std::size_t question) {
        std::unique_lock guard(mutex_);
        const std::shared_ptr<Answer> answer = answers_.at(question);
        guard.unlock();
        answer->arrive();
    }

    std::atomic<int> asked{0};
    std::atomic<int> answers{0};
    std::atomic<int> givenUp{0};
    std::atomic<bool> arrivesAtOnce{false};
    std::atomic<bool> hasNothingToAsk{false};

  protected:
    bool ask(std::shared_ptr<Answer> answer) override {
        if (arrivesAtOnce) answer->arrive();
        const std::lock_guard guard(mutex_);
        answers_.push_back(std::move(answer));
        ++asked;
        return !hasNothingToAsk;
    }
    void answered() override { ++answers; }
    void gaveUp() override { ++givenUp; }

  private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<Answer>> answers_;
};

struct BlockingPollTest : testing::Test {
    BlockingPollTest() { manager_->RTWMSetBlockedWorkMgr(blockedWork_.get()); }
    ~BlockingPollTest() override { manager_.reset(); }

    Asking& add(const std::string& name) {
        Asking& poll = polls_.emplace_back(*blockedWork_, name);
        manager_->RTWMAddPoll(&poll);
        manager_->RTWMDistributePolls();
        return poll;
    }

    void tick() { manager_->onTimer(nullptr); }

    // Ticks until `count` is at least `value`.
    testing::AssertionResult ticksUntil(const std::atomic<int>& count, int value) {
        const bool reached = kvx::test::eventually([&] {
            if (count < value) tick();
            return count >= value;
        });
        return reached ? testing::AssertionSuccess() : testing::AssertionFailure() << count;
    }

    std::deque<Asking> polls_;
    std::unique_ptr<CVekTimedWorkMgr> manager_ =
        std::make_unique<CVekTimedWorkMgr>(nullptr, 1U, 1000U, 4U, runTimedWorker, FALSE);
    std::unique_ptr<CVekBlockedWorkMgr> blockedWork_ =
        std::make_unique<CVekBlockedWorkMgr>(*manager_, kTicks);
    Asking& poll_ = add("asking");
};

TEST_F(BlockingPollTest, RunsAgainWhenItsAnswerHasComeAndIsNotDueMeanwhile) {
    ASSERT_TRUE(ticksUntil(poll_.asked, 1));
    tick();
    EXPECT_TRUE(poll_.RTWPollIsExecuting()) << "parked";
    EXPECT_EQ(poll_.asked, 1);
    poll_.arrive(0);
    ASSERT_TRUE(ticksUntil(poll_.answers, 1));
    ASSERT_TRUE(ticksUntil(poll_.asked, 2)) << "due again once it has finished";
    EXPECT_EQ(poll_.givenUp, 0);
}

TEST_F(BlockingPollTest, TakesTheAnswersOfManyThatAreFasterThanTheirParking) {
    poll_.arrivesAtOnce = true;
    for (int i = 0; i < 9; ++i) add(std::to_string(i)).arrivesAtOnce = true;
    for (const Asking& poll : polls_) {
        ASSERT_TRUE(ticksUntil(poll.answers, 20));
        EXPECT_GE(poll.asked, 20);
        EXPECT_EQ(poll.givenUp, 0);
    }
}

TEST_F(BlockingPollTest, GivesUpAfterItsTimeOutAndTakesNoLateAnswer) {
    ASSERT_TRUE(ticksUntil(poll_.givenUp, 1));
    poll_.arrive(0);
    ASSERT_TRUE(ticksUntil(poll_.asked, 2));
    EXPECT_EQ(poll_.answers, 0);
    poll_.arrive(1);
    ASSERT_TRUE(ticksUntil(poll_.answers, 1));
}

TEST_F(BlockingPollTest, EndsAtOnceWhenThereIsNothingToWaitForAndMayBeParkedWhenTheManagersGo) {
    poll_.hasNothingToAsk = true;
    ASSERT_TRUE(ticksUntil(poll_.asked, 4));
    EXPECT_EQ(poll_.answers + poll_.givenUp, 0);
    poll_.hasNothingToAsk = false;
    const int asked = poll_.asked;
    ASSERT_TRUE(ticksUntil(poll_.asked, asked + 2)) << "one of them may have had nothing to ask";
    manager_.reset();
    blockedWork_.reset();
    EXPECT_FALSE(poll_.RTWPollIsExecuting());
    poll_.arrive(static_cast<std::size_t>(poll_.asked - 1));
}

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
