#include "examples/modeld/polls/BlockingPoll.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace modeld {
namespace {

constexpr unsigned int kTicks = 50;  // until an answer is given up

// Counts what becomes of it and lets the test bring the answers.
class Asking : public BlockingPoll {
  public:
    explicit Asking(CVekBlockedWorkMgr& blockedWork) : BlockingPoll(blockedWork) {
        RTWSetName(new CVekAtom("asking"));
        RTWSetFrequency(1);
    }

    void arrive(std::size_t question) {
        std::shared_ptr<Answer> answer;
        {
            const std::lock_guard guard(mutex_);
            answer = answers_.at(question);
        }
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
        {
            const std::lock_guard guard(mutex_);
            answers_.push_back(std::move(answer));
        }
        ++asked;
        return !hasNothingToAsk;
    }
    void answered() override { ++answers; }
    void gaveUp() override { ++givenUp; }

  private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<Answer>> answers_;
};

class BlockingPollTest : public ::testing::Test {
  protected:
    BlockingPollTest() : poll_(makePoll()) {
        manager_->RTWMSetBlockedWorkMgr(blockedWork_.get());
        manager_->RTWMAddPoll(&poll_);
        manager_->RTWMDistributePolls();
    }

    Asking& makePoll() {
        blockedWork_ = std::make_unique<CVekBlockedWorkMgr>(*manager_, kTicks);
        owned_ = std::make_unique<Asking>(*blockedWork_);
        return *owned_;
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

    std::unique_ptr<Asking> owned_;
    std::unique_ptr<CVekBlockedWorkMgr> blockedWork_;
    std::unique_ptr<CVekTimedWorkMgr> manager_ =
        std::make_unique<CVekTimedWorkMgr>(nullptr, 1U, 1000U, 2U, runTimedWorker, FALSE);
    Asking& poll_;
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

TEST_F(BlockingPollTest, TakesAnAnswerThatIsFasterThanItsParking) {
    poll_.arrivesAtOnce = true;
    ASSERT_TRUE(ticksUntil(poll_.answers, 5));
    EXPECT_GE(poll_.asked, 5);
    EXPECT_EQ(poll_.givenUp, 0);
}

TEST_F(BlockingPollTest, GivesUpAfterItsTimeOutAndTakesNoLateAnswer) {
    ASSERT_TRUE(ticksUntil(poll_.givenUp, 1));
    poll_.arrive(0);
    ASSERT_TRUE(ticksUntil(poll_.asked, 2));
    EXPECT_EQ(poll_.answers, 0);
    poll_.arrive(1);
    ASSERT_TRUE(ticksUntil(poll_.answers, 1));
}

TEST_F(BlockingPollTest, EndsAtOnceWhenThereIsNothingToWaitFor) {
    poll_.hasNothingToAsk = true;
    ASSERT_TRUE(ticksUntil(poll_.asked, 4));
    EXPECT_EQ(poll_.answers + poll_.givenUp, 0);
}

TEST_F(BlockingPollTest, MayBeParkedWhenTheManagersGo) {
    ASSERT_TRUE(ticksUntil(poll_.asked, 1));
    manager_.reset();
    blockedWork_.reset();
    EXPECT_FALSE(poll_.RTWPollIsExecuting());
    poll_.arrive(0);
}

}  // namespace
}  // namespace modeld
