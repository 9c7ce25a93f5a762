// Who works next and for how long, on a clock that only work moves.

#include "rvd/Line.h"

namespace kvx::rvd {
namespace {

Nanoseconds now = 0;
Nanoseconds elsewhere = 0;  // of it the processor has worked for others
int usedLooks = 0;

// Works in steps of `step`, until its slice is over or its work is done.
class Job : public Worker {
  public:
    Job(Line& line, Nanoseconds step, int steps) : line_(line), step_(step), left(steps) {}
    ~Job() override { line_.leave(*this); }
    void work() override {
        ++slices;
        while (left > 0 && !line_.isOver(Line::kStepsPerLook)) {
            --left;
            now += step_;
        }
        left > 0 ? line_.join(*this) : void(doneAt = now);
    }

  protected:
    Line& line_;
    const Nanoseconds step_;

  public:
    int left;
    int slices = 0;
    Nanoseconds doneAt = 0;
};

constexpr Nanoseconds kMicrosecond = 1000;
constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr int kEndless = 1'000'000'000;

class LineTest : public testing::Test {
  protected:
    LineTest() {
        now = kSecond;
        elsewhere = 0;
        usedLooks = 0;
    }
    // One turn of the loop in which these come.
    void turn(const std::vector<Worker*>& comers) {
        line_.nextTurn();
        for (Worker* worker : comers) line_.come(*worker);
        line_.run();
    }

    Line line_{[] { return now; },
               [] {
                   ++usedLooks;
                   return now - elsewhere;
               }};
};

TEST_F(LineTest, OneWhoHasLittleToDoWaitsForAFewMillisecondsBesideManyWhoHaveMuch) {
    std::vector<std::unique_ptr<Job>> greedy;
    std::vector<Worker*> comers;
    for (int i = 0; i < 60; ++i) {
        greedy.push_back(std::make_unique<Job>(line_, 300 * kMicrosecond, kEndless));
        comers.push_back(greedy.back().get());
    }
    for (int i = 0; i < 20; ++i) turn(comers);
    for (int i = 0; i < 100; ++i) {
        Job honest(line_, 5 * kMicrosecond, 1);
        const Nanoseconds came = now;
        comers.push_back(&honest);
        turn(comers);
        comers.pop_back();
        EXPECT_EQ(honest.slices, 1);
        EXPECT_LT(honest.doneAt - came, 8'000 * kMicrosecond);
    }
}

TEST_F(LineTest, LongStepsArePaidBackSoThatTimeIsShared) {
    Job shortSteps(line_, 10 * kMicrosecond, kEndless);
    Job longSteps(line_, 20'000 * kMicrosecond, kEndless);
    while (now < 11 * kSecond) turn({&shortSteps, &longSteps});
    const auto used = (kEndless - shortSteps.left) * 10 * kMicrosecond;
    EXPECT_GT(used, 4 * kSecond);
    EXPECT_LT(used, 6 * kSecond);
}

// The processor leaves it for a while, each time.
class Interrupted : public Job {
  public:
    using Job::Job;
    void work() override {
        now += 4'000 * kMicrosecond;
        elsewhere += 4'000 * kMicrosecond;
        Job::work();
    }
};

TEST_F(LineTest, WhatTheProcessorDoesForOthersIsNotCharged) {
    Job greedy(line_, 10 * kMicrosecond, kEndless);
    Interrupted honest(line_, 5 * kMicrosecond, 1'000);
    turn({&greedy});
    for (int i = 0; i < 100; ++i) {
        honest.left = 1;
        line_.nextTurn();
        line_.come(honest);
        EXPECT_EQ(honest.left, 0) << "it waits in the line, turn " << i;
        line_.run();
    }
}

TEST_F(LineTest, TheTimeUsedIsNotLookedAtForEachOfMany) {
    for (int i = 0; i < 1'000; ++i) {
        Job brief(line_, 5 * kMicrosecond, 1);
        turn({&brief});
    }
    EXPECT_LE(usedLooks, 6);
}

// What it works at was caused by `other`.
class Victim : public Job {
  public:
    Victim(Line& line, Worker& other) : Job(line, 100 * kMicrosecond, kEndless), other_(other) {}
    void work() override {
        const Nanoseconds begin = now;
        ++slices;
        while (!line_.isOver(Line::kStepsPerLook)) {
            now += 50 * kMicrosecond;
            line_.blame(other_, now - 40 * kMicrosecond, 5 * kMicrosecond);
        }
        longest = std::max(longest, now - begin);
        worked += now - begin;
        line_.join(*this);
    }
    Nanoseconds longest = 0;
    Nanoseconds worked = 0;

  private:
    Worker& other_;
};

TEST_F(LineTest, WhoSendsAllTheTimeButIsReadOnceATurnGetsNearlyHalf) {
    Job endless(line_, 10 * kMicrosecond, kEndless);
    turn({&endless});
    Nanoseconds sent = 0;
    while (now < 5 * kSecond) {
        Job read(line_, 10 * kMicrosecond, 40);
        turn({&read});
        while (read.left > 0) turn({});
        sent += 400 * kMicrosecond;
    }
    EXPECT_GT(sent, 14 * kSecond / 10);
}

TEST_F(LineTest, WhoCausesTheWorkOfAnotherPaysForItWithoutLengtheningTheTurnMuch) {
    Job cause(line_, 10 * kMicrosecond, kEndless);
    Victim victim(line_, cause);
    turn({&cause, &victim});
    while (now < 11 * kSecond) turn({});
    const Nanoseconds caused = (kEndless - cause.left) * 10 * kMicrosecond;
    EXPECT_LE(victim.longest, 2 * Line::kLongest + 50 * kMicrosecond);
    EXPECT_LT(caused, victim.worked / 3);
    EXPECT_GT(caused, 0);
}

TEST_F(LineTest, WhoeverIsAloneGoesOnThoughItHasOverdrawnAndMayLeaveWhileItWaits) {
    Job alone(line_, 50'000 * kMicrosecond, 4);
    turn({&alone});
    for (int i = 0; i < 4; ++i) turn({});
    EXPECT_EQ(alone.left, 0);
    EXPECT_TRUE(line_.empty());
    EXPECT_EQ(now, kSecond + 200'000 * kMicrosecond);
    Job other(line_, 50'000 * kMicrosecond, 4);
    turn({&other});
    EXPECT_FALSE(line_.empty());
    line_.leave(other);
    EXPECT_TRUE(line_.empty());
}

}  // namespace
}  // namespace kvx::rvd
