#include "kvx/Changes.h"

#include "kvx/Answer.h"

namespace kvx {
namespace {

struct ChangesTest : testing::Test {
    ChangesTest() { changes_.begin(7); }

    Result<> commit(int id, const std::function<Result<>()>& apply = {}) {
        return changes_.commit(changeRecord(Change::Inserted, Record{{"id", id}}, "ports"), apply);
    }
    Stamp now() {
        return changes_.read([] {});
    }

    // The numbers of the notices after a stamp.
    std::string since(const Stamp& stamp) {
        const auto notices = changes_.since(stamp);
        std::string text = notices ? "" : "none";
        for (std::size_t i = 0; notices && i < notices->size(); ++i) {
            text += std::to_string((*notices)[i].stamp.number) + " ";
        }
        return text;
    }

    Result<> room_;
    std::vector<Changes::Notice> sent_;
    Changes changes_{{[this](std::size_t) { return room_; },
                      [this](const Changes::Notice& notice) { sent_.push_back(notice); }},
                     {3, 4096}};
};

TEST_F(ChangesTest, HoldsTheNewestNoticesOfItsEpoch) {
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(commit(i));
    EXPECT_EQ(since({7, 1}), "2 3 4 ");
    EXPECT_EQ(since({7, 4}), "4 ") << "one without changes";
    EXPECT_EQ(since({7, 0}), "none") << "not held any more";
    EXPECT_EQ(since({7, 5}), "none");
    EXPECT_EQ(since({8, 3}), "none");
    changes_.begin(9);
    EXPECT_EQ(since({7, 3}), "none");
    EXPECT_EQ(now(), (Stamp{9, 0}));
    ASSERT_TRUE(commit(5));
    EXPECT_EQ(since({9, 0}), "1 ");
    ASSERT_TRUE(
        changes_.commit(changeRecord(Change::Inserted, Record{{"text", std::string(5000, 'x')}})));
    EXPECT_EQ(since({9, 1}), "none") << "it alone is more than may be held";
}

TEST_F(ChangesTest, GoOnInANewEpochWhenAnotherMemberMayHaveBeenActive) {
    changes_.begin(0);
    // Active or not, may act or not, and whether an epoch begins.
    for (const auto& [isActive, mayAct, begins] : {std::tuple(false, true, false),
                                                   {true, false, true},
                                                   {true, true, false},
                                                   {true, false, false},
                                                   {true, true, true},
                                                   {true, true, false},
                                                   {false, false, false},
                                                   {true, true, true}}) {
        EXPECT_EQ(changes_.keepEpoch(isActive, mayAct), begins);
        EXPECT_EQ(now().epoch != 0, isActive);
    }
}

TEST_F(ChangesTest, TellsWhatHasBeenAppliedOnly) {
    const auto fails = []() -> Result<> {
        return tl::unexpected(Error{Errc::NoMemory, "full", ""});
    };
    bool isApplied = false;
    const auto applies = [&]() -> Result<> {
        isApplied = true;
        return {};
    };
    EXPECT_EQ(commit(1, fails).error().text, "full");
    EXPECT_EQ(changes_.commit(Record{{"id", 1}}, applies).error().text, "a record tells no change");
    room_ = tl::unexpected(Error{Errc::QueueFull, {}, {}});
    EXPECT_EQ(commit(1, applies).error().code, Errc::QueueFull);
    room_ = {};
    changes_.begin(0);
    EXPECT_EQ(commit(1, applies).error().text, "this member is not active");
    changes_.tell();
    EXPECT_FALSE(isApplied);
    EXPECT_TRUE(sent_.empty());
    changes_.begin(8);
    EXPECT_TRUE(commit(1, applies));
    EXPECT_EQ(now(), (Stamp{8, 1}));
}

TEST_F(ChangesTest, AreReadByReadersThatKnowNoNumbers) {
    std::vector<Record> many(250, changeRecord(Change::Deleted, Record{{"id", 1}}, "ports"));
    ASSERT_TRUE(changes_.commit(many));
    changes_.tell();
    ASSERT_EQ(sent_.size(), 4U);
    EXPECT_EQ(detail::recordsOf(sent_[2].message()).size(), 50U);
    EXPECT_EQ(readStamp(sent_[2].message()), (Stamp{7, 3}));
    EXPECT_TRUE(detail::recordsOf(sent_[3].message()).empty());
    EXPECT_EQ(readStamp(sent_[3].message()), (Stamp{7, 3}));
}

TEST_F(ChangesTest, AreReadBesideCommitsOfOtherThreads) {
    int data = 0;  // guarded by the object under test
    const auto write = [&] {
        for (int i = 0; i < 500; ++i) {
            static_cast<void>(commit(i, [&]() -> Result<> {
                ++data;
                return {};
            }));
        }
    };
    std::thread one(write);
    std::thread other(write);
    int seen = 0;
    while (seen < 1000) {
        const Stamp stamp = changes_.read([&] { seen = data; });
        EXPECT_EQ(stamp.number, static_cast<std::uint64_t>(seen));
    }
    one.join();
    other.join();
}

TEST(Stamp, IsReadFromWhatHasItsFormOnly) {
    RvMsg message(0UL);
    ASSERT_TRUE(appendStamp(message, {1, 0x0102030405060708}));
    ASSERT_TRUE(appendSource(message, {"ports", {"device", "index"}}));
    EXPECT_EQ(readStamp(message), (Stamp{1, 0x0102030405060708}));
    EXPECT_EQ(readSource(message), (RowSource{"ports", {"device", "index"}}));
    EXPECT_EQ(readHistoryQuestion(historyQuestion({3, 4})), (Stamp{3, 4}));
    EXPECT_FALSE(readHistoryQuestion(message));
    RvMsg other(0UL);
    other.append("s", RVMSG_OPAQUE, 15, "0123456789abcdef");
    other.append("k", RVMSG_OPAQUE, 3, "abc");
    for (const RvDatum& none : {RvDatum(other), RvDatum(RVMSG_STRING, 1, "x")}) {
        EXPECT_FALSE(readStamp(none));
        EXPECT_FALSE(readSource(none));
    }
}

}  // namespace
}  // namespace kvx
