#include "rvbridge/Ledger.h"

namespace kvx::bridge {
namespace {

struct Ledger : testing::Test, ReceiverSink {
    bool message(SubjectView, Bytes bytes) override {
        if (hasRoom) seen.emplace_back("message " + std::to_string(bytes.size()));
        return hasRoom;
    }
    void lost(std::string_view host, SubjectView subject, std::uint64_t n, LossCause c) override {
        seen.push_back(std::string(host) + " " + subject.text() + " " + std::to_string(n) + " " +
                       textOf(c));
    }
    bool heardAllOf(const Frame&, SubjectView) override { return heardAll; }
    bool mayBegin(const Frame&, SubjectView) override { return mayBeginNow; }

    // What the receiver does with frame `bytes` on A.
    std::vector<std::string> take(Bytes bytes) {
        seen.clear();
        Frame frame = *readFrame(bytes);
        receiver.take(frame, a);
        return seen;
    }
    std::vector<std::string> takeMessages(MessageNumber first, unsigned count) {
        for (unsigned i = 0; i < count; ++i, ++first.sequence, ++first.number) {
            EXPECT_TRUE(writer.append(first, std::vector<std::uint8_t>(10)));
        }
        const auto result = take(writer.open());
        writer.clear();
        return result;
    }
    std::vector<std::string> takePart(FrameWriter& from, const MessageNumber& number,
                                      unsigned which, std::size_t size = 10'000) {
        std::vector<std::string> result;
        unsigned i = 0;
        from.parts(number, std::vector<std::uint8_t>(size), [&](Bytes part) {
            if (i++ == which) result = take(part);
        });
        from.clear();
        return result;
    }

    bool isSubscribedSince(std::uint64_t change, SubjectView) override {
        return subscribedSince <= change;
    }
    // Of all epochs of the host; the messages that were received are in `received`.
    Losses losses() {
        Losses sum{};
        receiver.eachPeer([&](const std::string&, const Traffic& more, const Losses& lost) {
            received += more.messages;
            for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += lost[i];
        });
        return sum;
    }

    using Seen = std::vector<std::string>;
    std::uint64_t received = 0;
    std::uint64_t subscribedSince = ~std::uint64_t{0};
    const Subject a = *Subject::fromText("A");
    Seen seen;
    bool heardAll = false;
    bool hasRoom = true;
    bool mayBeginNow = true;
    Receiver receiver{1, *this, 100, 20'000};
    FrameWriter writer{"h", 7, FrameWriter::kLeastLimit};
};

TEST_F(Ledger, TellsWhatIsMissingAndWhy) {
    EXPECT_EQ(takeMessages({10, 1, 5}, 1), Seen{"message 10"});
    EXPECT_EQ(takeMessages({10, 1, 5}, 1), Seen{}) << "a second copy";
    EXPECT_EQ(takeMessages({12, 1, 7}, 1), (Seen{"h A 1 engine", "message 10"}));
    EXPECT_EQ(takeMessages({12, 1, 7}, 2), Seen{"message 10"}) << "the first was seen";
    receiver.fault(LossCause::EngineSlow);
    EXPECT_EQ(take(writer.mark({20, 1, 10}, LossCause::Engine)), Seen{"h A 1 engine slow"});
    EXPECT_EQ(take(writer.mark({20, 1, 10}, LossCause::Engine)), Seen{});
    EXPECT_EQ(take(writer.mark({22, 1, 12}, LossCause::QueueFull)), Seen{"h A 2 queue full"});
    EXPECT_EQ(takeMessages({19, 1, 9}, 1), Seen{}) << "counted as lost, comes too late";
    receiver.fault(LossCause::QueueFull);
    EXPECT_EQ(take(writer.mark({23, 1, 13}, LossCause::Engine)), Seen{"h A 1 queue full"});
    receiver.fault(LossCause::EngineGone);
    EXPECT_EQ(takeMessages({23, 3, 2}, 1), (Seen{"h A 1 engine gone", "message 10"}))
        << "the sender has begun the subject anew";
    hasRoom = false;
    EXPECT_EQ(takeMessages({24, 3, 3}, 1), Seen{});
    EXPECT_EQ(losses(), (Losses{1, 1, 1, 4, 0}));
    EXPECT_EQ(received, 4U);
}

TEST_F(Ledger, KnowsWhatIsExpectedOnlyWhileSubscribed) {
    takeMessages({1, 1, 1}, 1);
    receiver.forget(a);
    EXPECT_EQ(takeMessages({9, 1, 9}, 1), Seen{"message 10"});
    receiver.forget(*Subject::fromText("*"));
    heardAll = true;
    EXPECT_EQ(takeMessages({20, 1, 15}, 1), Seen{"message 10"}) << "was seen before";
    receiver.forget(a);
    EXPECT_EQ(takeMessages({30, 2, 3}, 1), (Seen{"h A 2 engine", "message 10"})) << "is all ours";
    heardAll = mayBeginNow = false;
    receiver.forget(a);
    EXPECT_EQ(takeMessages({40, 2, 9}, 1), Seen{"message 10"});
    mayBeginNow = true;
    EXPECT_EQ(takeMessages({45, 2, 12}, 1), Seen{"message 10"}) << "it was not known by the first";
}

TEST_F(Ledger, KnowsWhatAnotherSubscriptionHasCoveredAllTheTime) {
    subscribedSince = receiver.subscriptionsChange();
    takeMessages({1, 1, 1}, 1);
    receiver.forget(*Subject::fromText(">"));
    EXPECT_EQ(takeMessages({5, 1, 3}, 1), (Seen{"h A 1 engine", "message 10"}));
    receiver.forget(a);
    subscribedSince = receiver.subscriptionsChange();
    EXPECT_EQ(takeMessages({9, 1, 9}, 1), Seen{"message 10"}) << "it began later";
}

TEST_F(Ledger, TellsOfNoLossBeforeABridgeThatItHadToForget) {
    heardAll = true;
    takeMessages({1, 1, 1}, 5);
    for (unsigned i = 0; i <= Receiver::kMaxHosts; ++i) {
        FrameWriter other("h" + std::to_string(i), 7);
        ASSERT_TRUE(other.append({1, 1, 1}, std::vector<std::uint8_t>(1)));
        take(other.open());
    }
    EXPECT_EQ(takeMessages({6, 1, 6}, 1), Seen{"message 10"});
    EXPECT_EQ(takeMessages({~std::uint64_t{0} - 5, 1, 9}, 1), Seen{}) << "a forged sequence";
    EXPECT_EQ(takeMessages({9, 2, 2}, 1), (Seen{"h A 1 engine", "message 10"}));
}

TEST_F(Ledger, PutsPartsTogether) {
    const MessageNumber number{1, 1, 1};
    EXPECT_EQ(takePart(writer, number, 0), Seen{});
    EXPECT_EQ(takePart(writer, number, 0), Seen{}) << "a second copy";
    EXPECT_EQ(takePart(writer, number, 1), Seen{});
    EXPECT_EQ(takePart(writer, number, 2), Seen{"message 10000"});
    EXPECT_EQ(takePart(writer, number, 2), Seen{}) << "a second copy";
    EXPECT_EQ(takePart(writer, {2, 1, 2}, 0), Seen{});
    EXPECT_EQ(takePart(writer, {2, 1, 2}, 2), Seen{"h A 1 part missing"});
    EXPECT_EQ(takePart(writer, {3, 1, 3}, 1), Seen{"h A 1 part missing"});
    EXPECT_EQ(takePart(writer, {3, 1, 3}, 2), Seen{});
    EXPECT_EQ(takePart(writer, {4, 1, 4}, 0), Seen{});
    EXPECT_EQ(takeMessages({5, 1, 5}, 1), (Seen{"h A 1 part missing", "message 10"}));
    EXPECT_EQ(takePart(writer, {6, 1, 6}, 0), Seen{});
    receiver.forget(a);
    EXPECT_EQ(takeMessages({7, 1, 7}, 1), Seen{"message 10"}) << "nobody wanted the rest";
    EXPECT_EQ(receiver.unfinishedBytes(), 0U);
}

TEST_F(Ledger, GivesUpTheOldestUnfinishedMessage) {
    std::vector<std::string> told;
    for (int i = 0; i < 10; ++i) {
        FrameWriter other("h" + std::to_string(i), 7, FrameWriter::kLeastLimit);
        for (const std::string& what : takePart(other, {1, 1, 1}, 0)) told.push_back(what);
        EXPECT_LE(receiver.unfinishedBytes(), 20'000U);
    }
    ASSERT_GE(told.size(), 5U);
    EXPECT_EQ(told[0], "h0 A 1 part missing");
    EXPECT_EQ(told[1], "h1 A 1 part missing");
    seen.clear();
    receiver.hostDown("h9", 7);
    EXPECT_EQ(seen, Seen{"h9 A 1 part missing"});
}

struct Sending : testing::Test {
    void send(const char* subject) { (void)sender.next(*Subject::fromText(subject)); }
    void drop(const char* subject) {
        send(subject);
        sender.dropped(*Subject::fromText(subject), LossCause::QueueFull);
    }
    std::vector<std::string> marks() {
        std::vector<std::string> marks;
        const auto note = [&marks](SubjectView subject, const MessageNumber& n, LossCause cause) {
            marks.push_back(subject.text() + std::to_string(n.number) + ' ' + textOf(cause));
        };
        while (sender.takeMark(note)) {
        }
        return marks;
    }
    using Marks = std::vector<std::string>;
    Sender sender{1, 3};
};

TEST_F(Sending, NumbersEachSubjectWhileItIsInTheTable) {
    const auto next = [this](const char* subject) {
        const MessageNumber n = sender.next(*Subject::fromText(subject));
        return std::array<std::uint64_t, 3>{n.sequence, n.keyEpoch, n.number};
    };
    EXPECT_EQ(next("A"), (std::array<std::uint64_t, 3>{1, 1, 1}));
    EXPECT_EQ(next("B"), (std::array<std::uint64_t, 3>{2, 2, 1}));
    EXPECT_EQ(next("A"), (std::array<std::uint64_t, 3>{3, 1, 2}));
    drop("C");
    EXPECT_EQ(next("D"), (std::array<std::uint64_t, 3>{5, 4, 1})) << "B leaves";
    EXPECT_EQ(next("B"), (std::array<std::uint64_t, 3>{6, 5, 1})) << "A leaves";
    EXPECT_TRUE(sender.hasDropped());
    send("E");
    EXPECT_FALSE(sender.hasDropped()) << "C has left";
    EXPECT_EQ(marks(), Marks{});
}

TEST_F(Sending, MarksWhatWasDroppedFirstThenWhatIsAskedForThenWhatIsQuiet) {
    send("A");
    send("B");
    sender.wantMarks(0);
    drop("B");
    drop("C");
    EXPECT_EQ(marks(), (Marks{"C2 queue full", "B3 queue full", "A2 engine"}));
    sender.engineWasGone();
    send("A");
    sender.wantMarks(2);
    EXPECT_EQ(marks(), (Marks{"A3 engine", "C2 engine gone", "B3 engine gone"}));
    sender.wantMarksOfQuiet();
    send("A");
    sender.wantMarksOfQuiet();
    EXPECT_EQ(marks(), (Marks{"C2 engine gone", "B3 engine gone"})) << "A is not quiet";
    sender.wantMarksOfQuiet();
    EXPECT_EQ(marks(), Marks{"A4 engine"});
    sender.wantMarksOfQuiet();
    EXPECT_EQ(marks(), Marks{}) << "once";
}

}  // namespace
}  // namespace kvx::bridge
