// A follower against the members of a service, on a bus that loses, delays and reorders: the state
// machine and the numbering that ship, with everything between them made up by a seed.

#include "kvx/Answer.h"
#include "kvx/Changes.h"
#include "kvx/FollowState.h"
#include "tests/support/Sanitizer.h"

namespace kvx::detail {
namespace {

constexpr unsigned kSeeds = test::kIsWatched ? 200 : 1'000;  // interleavings of one test

// Values are never used again, and each names the one before it: a change that is left out shows.
struct Value {
    int now = 0;
    int before = 0;
    friend bool operator==(const Value&, const Value&) = default;
};

using Table = std::map<int, Value>;

Record rowOf(int key, const Value& value) {
    return Record{{"id", key}, {"now", value.now}, {"before", value.before}};
}

Value valueOf(const Record& row) {
    return {*row.get<int>("now"), *row.get<int>("before")};
}

Rows rowsOf(const Table& table) {
    Rows rows;
    for (const auto& [key, value] : table) rows.push_back(rowOf(key, value));
    return rows;
}

// What a follower's functions make of what they are given, and what of it cannot be.
class View : public FollowState::Sink {
  public:
    void ask(FollowState::Question question) override { asked = question; }
    void onRow(const Record& row) override {
        isGiven(table.emplace(*row.get<int>("id"), valueOf(row)).second, row);
    }
    void onChange(const Record& change) override {
        const int key = *change.get<int>("id");
        const int before = table.contains(key) ? table[key].now : 0;
        const bool isDeletion = changeOf(change) == Change::Deleted;
        isGiven(before == (isDeletion ? valueOf(change).now : valueOf(change).before), change);
        apply(change);
    }
    void onResynchronised(std::span<const Record> differences) override {
        ++resynchronised;
        for (const Record& difference : differences) {
            const int key = *difference.get<int>("id");
            const bool isSame = table.contains(key) && table[key] == valueOf(difference);
            isGiven(isSame == (changeOf(difference) == Change::Deleted), difference);
            apply(difference);
        }
    }
    void onFailure(const Error& error) override { failure = error.message(); }

    Table table;
    std::optional<FollowState::Question> asked;
    int resynchronised = 0;
    std::string wrong;
    std::string failure;

  private:
    void isGiven(bool rightly, const Record& record) {
        if (!rightly) wrong += record.toString() + '\n';
    }
    void apply(const Record& change) {
        const int key = *change.get<int>("id");
        const bool isInsertion = changeOf(change) == Change::Inserted;
        isGiven(table.contains(key) != isInsertion, change);
        if (changeOf(change) == Change::Deleted) {
            table.erase(key);
        } else {
            table[key] = valueOf(change);
        }
    }
};

FollowState::Notice received(const Changes::Notice& sent) {
    const RvMsg message = sent.message();
    return {*readStamp(message), recordsOf(message), sent.packet->size()};
}

// A member with its data and the notices that it has sent and nobody has heard.
class Member {
  public:
    explicit Member(Table start) : table(std::move(start)) { changes.setKey("", {"id"}); }

    void commit(std::mt19937& random, int& mark) {
        const int key = static_cast<int>(random() % 4);
        const bool isThere = table.contains(key);
        const bool isDeletion = isThere && random() % 3 == 0;
        const Value before = isThere ? table[key] : Value();
        const Value value = isDeletion ? before : Value{++mark, before.now};
        const Change change = isDeletion ? Change::Deleted
                              : isThere  ? Change::Changed
                                         : Change::Inserted;
        ASSERT_TRUE(changes.commit(changeRecord(change, rowOf(key, value)), [&]() -> Result<> {
            table[key] = value;
            if (isDeletion) table.erase(key);
            return {};
        }));
    }

    Table table;
    std::deque<Changes::Notice> sent;
    Changes changes{{[](std::size_t) { return Result<>(); },
                     [this](const Changes::Notice& notice) { sent.push_back(notice); }},
                    {5, 4096}};
};

class World {
  public:
    explicit World(unsigned seed) : random_(seed) {
        members_.push_back(std::make_unique<Member>(Table{{1, {1, 0}}, {2, {2, 0}}}));
        active().changes.begin(++epoch_);
        follower_.start();
    }

    void run() {
        for (int i = 0; i < 50; ++i) step();
        isCalm_ = true;
        for (int i = 0; i < 5; ++i) settle();
        EXPECT_EQ(view.failure, "");
        EXPECT_EQ(view.wrong, "");
        EXPECT_EQ(view.table, active().table);
        EXPECT_EQ(follower_.at(), active().changes.read([] {}));
    }

    View view;

  private:
    using Event = std::function<void()>;

    Member& active() { return *members_.back(); }
    bool chance(unsigned of) { return random_() % of == 0; }

    void step() {
        switch (random_() % 12) {
            case 0:
            case 1:
            case 2:
                return active().commit(random_, mark_);
            case 3:
                return members_[random_() % members_.size()]->commit(random_, mark_);
            case 4:
            case 5:
            case 6:
                return deliver(*members_[random_() % members_.size()]);
            case 7:
                return send();
            case 8:
                return answer();
            case 9:
                return receive();
            case 10:
                return lose();
            default:
                return chance(2) ? takeOver() : active().changes.tell();
        }
    }

    void deliver(Member& from) {
        if (from.sent.empty()) return;
        follower_.onNotice(received(from.sent.front()));
        from.sent.pop_front();
    }

    // The question leaves, some time after it was asked for.
    void send() {
        if (!view.asked) return;
        question_ = std::exchange(view.asked, std::nullopt);
        since_ = follower_.at();
    }

    // The member reads its data; the answer comes some time later.
    void answer() {
        if (!question_) return;
        Member& member = !isCalm_ && chance(8) ? *members_[random_() % members_.size()] : active();
        const auto question = *std::exchange(question_, std::nullopt);
        if (question == FollowState::Question::Query) {
            FollowState::AnswerRows rows;
            rows.stamp = member.changes.read([&] { rows.rows = rowsOf(member.table); });
            rows.source = member.changes.source();
            reply_ = [this, rows = std::move(rows)] { follower_.onAnswer(rows); };
        } else if (const auto notices = member.changes.since(since_)) {
            std::vector<FollowState::Notice> packets;
            for (const auto& notice : *notices) packets.push_back(received(notice));
            reply_ = [this, packets = std::move(packets)] { follower_.onHistory(packets); };
        } else {
            reply_ = [this] { follower_.onQuestionFailed({Errc::Refused, "", ""}); };
        }
    }

    void receive() {
        if (const auto reply = std::exchange(reply_, {})) reply();
    }

    // Notices and what is under way; only sometimes is the follower told.
    void lose() {
        for (const auto& member : members_) {
            if (!member->sent.empty() && chance(2)) member->sent.pop_back();
        }
        if (chance(2) && follower_.at().epoch != 0 && (question_ || reply_)) {
            question_.reset();
            reply_ = nullptr;
            follower_.onQuestionFailed({Errc::Lost, "", ""});
        }
        if (chance(2)) follower_.onLoss();
    }

    // The next member may lack what the last one changed last, and the last one goes on for a
    // while.
    void takeOver() {
        const Table start = chance(2) ? active().table : before_;
        members_.push_back(std::make_unique<Member>(start));
        active().changes.begin(++epoch_);
        before_ = start;
        active().changes.tell();
    }

    void settle() {
        active().changes.tell();
        for (const auto& member : members_) {
            while (!member->sent.empty()) deliver(*member);
        }
        send();
        answer();
        receive();
    }

    std::mt19937 random_;
    std::vector<std::unique_ptr<Member>> members_;
    FollowState follower_{view, {4, 4096}};
    std::optional<FollowState::Question> question_;
    Stamp since_;
    Event reply_;
    Table before_{{1, {1, 0}}, {3, {3, 0}}};
    std::uint64_t epoch_ = 0;
    bool isCalm_ = false;
    int mark_ = 100;
};

class FollowStateTest : public testing::Test {
  protected:
    using Question = FollowState::Question;

    FollowStateTest() { follower_.start(); }
    void answer(std::uint64_t number, Table table = {}) {
        view_.asked.reset();
        follower_.onAnswer({rowsOf(table), Stamp{1, number}, {"", {"id"}}});
    }
    void hear(std::uint64_t number) {
        const int value = static_cast<int>(number);
        follower_.onNotice(
            {{1, number}, {changeRecord(Change::Inserted, rowOf(value, {value, 0}))}, 1});
    }

    View view_;
    FollowState follower_{view_, {2, 100}};
};

TEST_F(FollowStateTest, AsksForNothingThatItHas) {
    hear(4);
    hear(6);
    answer(5);
    for (const int number : {5, 6, 7, 4, 7}) hear(number);
    EXPECT_FALSE(view_.asked);
    EXPECT_EQ(view_.table.size(), 2U);
    follower_.onNotice({{1, 7}, {}, 0});
    EXPECT_FALSE(view_.asked);
    follower_.onNotice({{1, 8}, {}, 0});
    EXPECT_EQ(view_.asked, Question::History);
}

TEST_F(FollowStateTest, AsksForTheHistoryWhenWhatItKeptIsNotAll) {
    for (const int number : {2, 3, 4}) hear(number);
    answer(1);
    EXPECT_EQ(view_.asked, Question::History) << "more than it may keep";
    view_.asked.reset();
    follower_.onLoss();
    hear(2);
    EXPECT_EQ(view_.table.size(), 1U) << "it is the next one";
    follower_.onHistory({});
    EXPECT_EQ(view_.asked, Question::History) << "some may have come after that question";
    hear(4);
    view_.asked.reset();
    follower_.onHistory({});
    EXPECT_EQ(view_.asked, Question::History) << "the numbers have a hole";
    answer(0);
    EXPECT_FALSE(view_.asked) << "no such question is open";
}

TEST_F(FollowStateTest, AsksAgainWhenAnAnswerIsOlderThanWhatItHas) {
    answer(5);
    follower_.onNotice({{2, 1}, {}, 0});
    answer(4, {{1, {1, 0}}});
    EXPECT_EQ(view_.asked, Question::Query);
    EXPECT_EQ(view_.resynchronised, 0);
}

TEST_F(FollowStateTest, GivesNoChangeThatLeavesARowAsItIsKnown) {
    answer(5, {{6, {6, 0}}});
    const Record turned{{"before", 0}, {"now", 6}, {"id", 6}};
    hear(6);
    follower_.onNotice({{1, 7}, {changeRecord(Change::Changed, turned)}, 1});
    const Record deletion = changeRecord(Change::Deleted, turned);
    follower_.onNotice({{1, 8}, {deletion, deletion}, 1});
    EXPECT_EQ(view_.wrong, "") << "given twice";
    EXPECT_TRUE(view_.table.empty());
    EXPECT_EQ(follower_.at(), (Stamp{1, 8}));
}

TEST_F(FollowStateTest, EndsWhenAnAnswerCannotBeFollowed) {
    View other;
    FollowState unnumbered(other);
    unnumbered.start();
    unnumbered.onAnswer({{}, std::nullopt, {}});
    EXPECT_NE(other.failure.find("does not number its changes"), std::string::npos);
    follower_.onAnswer({rowsOf({{1, {1, 0}}}), Stamp{1, 1}, {"", {"name"}}});
    EXPECT_NE(view_.failure.find("lack the key field 'name'"), std::string::npos);
    view_.asked.reset();
    hear(2);
    follower_.onLoss();
    EXPECT_FALSE(view_.asked);
}

TEST_F(FollowStateTest, FollowsTheTableOfTheAnswerByWholeRowsWithoutAKey) {
    const Record row{{"id", 1}, {"now", 1}, {"before", 0}};
    follower_.onAnswer({{row}, Stamp{1, 0}, {"ports", {}}});
    const Record turned{{"now", 1}, {"before", 0}, {"id", 1}};
    follower_.onNotice({{1, 1}, {changeRecord(Change::Deleted, turned, "devices")}, 1});
    EXPECT_EQ(view_.table.size(), 1U);
    follower_.onNotice({{1, 2}, {changeRecord(Change::Deleted, turned, "ports")}, 1});
    EXPECT_TRUE(view_.table.empty());
    follower_.onNotice({{2, 0}, {}, 0});
    follower_.onAnswer({{}, Stamp{2, 0}, {"ports", {}}});
    EXPECT_EQ(view_.resynchronised, 1);
    EXPECT_EQ(view_.wrong, "");
}

class FollowSimulation : public testing::TestWithParam<unsigned> {};

TEST_P(FollowSimulation, GivesEveryChangeOnceWhateverIsLostDelayedOrTakenOver) {
    int resynchronised = 0;
    for (unsigned seed = GetParam(); seed < GetParam() + kSeeds; ++seed) {
        World world(seed);
        world.run();
        resynchronised += world.view.resynchronised;
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
    }
    EXPECT_GT(resynchronised, kSeeds / 2);
}

INSTANTIATE_TEST_SUITE_P(Seeds, FollowSimulation, testing::Range(0U, 10 * kSeeds, kSeeds));

}  // namespace
}  // namespace kvx::detail
