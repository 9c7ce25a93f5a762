#include "kvx/HeldQuestions.h"

#include "kvx/Conversation.h"

namespace kvx {
namespace {

using std::chrono::milliseconds;

struct Question {
    std::string replySubject;
    std::string text;
};

struct HeldQuestionsTest : testing::Test {
    void hold(const std::string& inbox, int atMs, std::size_t bytes = 0) {
        held_.hold({inbox, std::string(bytes, 'x')}, start_ + milliseconds(atMs));
    }

    std::string take(int atMs) {
        std::string inboxes;
        for (const Question& question : held_.take(start_ + milliseconds(atMs))) {
            inboxes += question.replySubject + ";";
        }
        return inboxes;
    }

    const std::chrono::steady_clock::time_point start_{};
    HeldQuestions<Question> held_;
};

TEST_F(HeldQuestionsTest, AreGivenUpOnceWhileTheyAreYoungAndTakeLimitedRoom) {
    hold("A", 0);
    hold("B", 1000);
    hold("C", 2000);
    held_.forget("B");
    held_.forget("nobody");
    EXPECT_EQ(take(6000), "A;C;");
    EXPECT_EQ(take(6000), "");
    hold("D", 7000);
    hold("E", 8000);
    EXPECT_EQ(take(13001), "E;");
    for (int i = 0; i < 1500; ++i) hold(std::to_string(i), 20000);
    EXPECT_EQ(held_.size(), HeldQuestions<Question>::kMost);
    for (int i = 0; i < 66; ++i) hold(std::to_string(i), 21000, 1U << 20U);
    EXPECT_EQ(held_.size(), 64U) << "a mebibyte each";
    hold("late", 27001);
    EXPECT_EQ(held_.size(), 1U) << "what is too old goes without being asked for";
}

TEST(BegunNotice, NamesTheInboxAndAnyOtherMessageNone) {
    using conversation::readInbox;
    EXPECT_EQ(readInbox(conversation::begunMessage("_INBOX.A.1")), "_INBOX.A.1");
    RvMsg other;
    other.append("outbox", "X");
    EXPECT_EQ(readInbox(other), std::nullopt);
    EXPECT_EQ(readInbox(RvDatum(RVMSG_STRING, 1, "X")), std::nullopt);
}

}  // namespace
}  // namespace kvx
