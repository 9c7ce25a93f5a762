#include "rvd/Outbox.h"

#include "rv/message/WireFormat.h"
#include "tests/support/RawClient.h"

namespace kvx::rvd {
namespace {

using Stream = std::vector<std::uint8_t>;

PayloadRef numbered(int number, std::size_t padding = 0) {
    return Payload::copy(
        test::dataMessage("N", std::to_string(number) + std::string(padding, ' ')));
}

struct Holder final : MemoryHolder {
    using MemoryHolder::MemoryHolder;
    bool giveUp() override {
        if (box->dropOldest(LossCause::Memory)) return true;
        ++ends;
        return false;
    }
    Outbox* box = nullptr;
    int ends = 0;
};

// A queue and who pays for it.
struct Paid {
    Paid(std::size_t limit, MemoryAccount& account, Counters& counters)
        : holder(account), box(limit, holder, counters) {
        holder.box = &box;
    }
    Holder holder;
    Outbox box;
};

class Queue : public testing::Test {
  protected:
    static std::size_t sizeOfOne() { return numbered(1)->size(); }

    // A queue that holds `messages` of the one-digit messages.
    Outbox& make(std::size_t messages) {
        box = &paid.emplace(messages * sizeOfOne(), account, counters).box;
        return *box;
    }

    // Takes up to `limit` bytes out, as a socket would.
    Stream write(std::size_t limit = SIZE_MAX) {
        Stream out;
        std::array<wire::Bytes, 4> slices;
        while (limit > 0) {
            const std::size_t count = box->gather(slices);
            if (count == 0) break;
            Stream part;
            for (std::size_t i = 0; i < count; ++i)
                part.insert(part.end(), slices[i].begin(), slices[i].end());
            part.resize(std::min(part.size(), limit));
            limit -= part.size();
            box->written(part.size());
            append(out, part);
        }
        return out;
    }

    static void append(Stream& out, const Stream& part) {
        out.insert(out.end(), part.begin(), part.end());
    }
    // "1 2 LOST:3:cause ..." of a stream of whole messages.
    static std::string read(const Stream& stream) {
        std::string text;
        wire::FrameReader reader;
        reader.feed(stream);
        for (auto frame = reader.next(); frame.kind != wire::FrameKind::None;
             frame = reader.next()) {
            if (frame.kind != wire::FrameKind::Message) {
                text += "control ";
                continue;
            }
            const auto received = test::readData(frame.bytes);
            text += received.subject == "N" ? received.text + ' ' : notice(frame.bytes);
        }
        return text;
    }
    static std::string notice(wire::Bytes message) {
        const wire::Bytes data = kvx::findField(message, "data")->bytes();
        const auto lost = kvx::findField(data, "lost")->bytes();
        EXPECT_EQ(lost.size(), 4U);
        EXPECT_EQ(kvx::findField(data, "bytes")->size, 8U);
        return "LOST:" + std::to_string(loadBig32(lost.data())) + ':' +
               std::string(*kvx::findField(data, "cause")->text()) + ' ';
    }
    void expectExact() {
        const auto& totals = box->totals();
        EXPECT_EQ(totals.matched, totals.delivered + totals.dropped + box->waitingMessages());
    }

    Counters counters;
    MemoryAccount account{1 << 20};
    std::optional<Paid> paid;
    Outbox* box = nullptr;
};

TEST_F(Queue, WritesInOrderWhateverTheSocketTakesAtATime) {
    for (const std::size_t step : {1U, 3U, 50U, 100'000U}) {
        Outbox& queue = make(10);
        for (int i = 1; i <= 6; ++i) queue.pushMessage(numbered(i));
        ASSERT_TRUE(queue.pushControl(wire::kKeepaliveBlock));
        Stream out;
        while (!queue.empty()) append(out, write(step));
        EXPECT_EQ(read(out), "1 2 3 4 5 6 control ");
        EXPECT_EQ(queue.totals().delivered, 6U);
        EXPECT_EQ(account.used(), 0U);
    }
}

TEST_F(Queue, DropsTheOldestAndSaysSoAheadOfTheRest) {
    Outbox& queue = make(3);
    for (int i = 1; i <= 5; ++i) queue.pushMessage(numbered(i));
    expectExact();
    EXPECT_EQ(read(write()), "LOST:2:slow reader 3 4 5 ");
    queue.pushMessage(numbered(6));
    EXPECT_EQ(read(write()), "6 ");
    expectExact();
}

TEST_F(Queue, NamesWhatAFollowerHasLostAsFarAsANoticeHasRoom) {
    Outbox& queue = make(3);
    queue.nameDropped();
    for (const char* subject : {"A", "B", "A", "N", "N", "N"}) {
        queue.pushMessage(Payload::copy(test::dataMessage(subject, "1")));
    }
    const auto named = [this] {
        const Stream out = write();
        EXPECT_LT(out.size(), 17'000U);
        const wire::Bytes data = kvx::findField(out, "data")->bytes();
        std::string text;
        std::uint64_t sum = 0;
        kvx::FieldCursor fields(kvx::findField(data, "dropped")->bytes());
        WireField field;
        while (fields.next(field) == kvx::FieldCursor::Step::kField) {
            if (field.type == RVMSG_UINT) sum += loadBig64(field.data);
            if (field.type != RVMSG_UINT) text += SubjectView::trusted(field.data).text();
        }
        return text.substr(0, 10) + ' ' + std::to_string(sum);
    };
    EXPECT_EQ(named(), "AB 3");
    for (int i = 1'000; i < 2'000; ++i) {
        queue.pushMessage(Payload::copy(test::dataMessage("S" + std::to_string(i), "")));
    }
    EXPECT_EQ(named(), "S1000S1001 299");
}

TEST_F(Queue, NeverDropsAMessageThatIsPartlyWritten) {  // what is left of it counts
    Outbox& queue = make(3);
    queue.pushMessage(numbered(1));
    Stream out = write(5);
    for (int i = 2; i <= 6; ++i) queue.pushMessage(numbered(i));
    append(out, write());
    EXPECT_EQ(read(out), "1 LOST:3:slow reader 5 6 ");
    expectExact();
}

TEST_F(Queue, AddsUpLossesUntilTheNoticeIsBegunAndThenStartsAnew) {
    Outbox& queue = make(2);
    for (int i = 1; i <= 3; ++i) queue.pushMessage(numbered(i));
    std::array<wire::Bytes, 1> offered;
    EXPECT_EQ(queue.gather(offered), 1U);  // offered, but the socket took nothing
    queue.pushMessage(numbered(4));
    Stream out = write(1);  // now the notice is begun
    queue.pushMessage(numbered(5));
    append(out, write());
    EXPECT_EQ(read(out), "LOST:2:slow reader LOST:1:slow reader 4 5 ");
    EXPECT_EQ(counters[Counter::LossNotices], 2U);
}

TEST_F(Queue, KeepsAPinnedMessageAndItsBytesInPlace) {
    Outbox& queue = make(2);
    Stream chunk = test::dataMessage("N", "1");
    queue.pushMessage(Payload::borrow(chunk));
    const wire::Bytes pinned = queue.pinFront();
    std::fill(chunk.begin(), chunk.end(), 0);
    for (int i = 2; i <= 5; ++i) queue.pushMessage(numbered(i));
    EXPECT_EQ(read(Stream(pinned.begin(), pinned.end())), "1 ");
    queue.written(pinned.size());
    EXPECT_EQ(read(write()), "LOST:3:slow reader 5 ");
}

TEST_F(Queue, SharesOneCopyOfAMessageAndPaysForItOnceAndInFullAgainstEachHolder) {
    Stream chunk = test::dataMessage("N", std::string(5'000, 'x'));
    Paid other(100'000, account, counters);
    Paid another(100'000, account, counters);
    PayloadRef message = Payload::borrow(chunk);
    other.box.pushMessage(message);
    another.box.pushMessage(message);
    message->keep();
    const Stream sent = chunk;
    std::ranges::fill(chunk, 0);
    std::array<wire::Bytes, 1> one;
    std::array<wire::Bytes, 1> same;
    ASSERT_EQ(other.box.gather(one) + another.box.gather(same), 2U);
    EXPECT_EQ(one[0].data(), same[0].data());
    EXPECT_TRUE(std::ranges::equal(one[0], sent));
    EXPECT_EQ(account.used(), chunk.size() + Payload::kCost + 2 * Outbox::kEntryCost);
    EXPECT_EQ(other.holder.held(), chunk.size() + Outbox::kEntryCost);
    EXPECT_TRUE(another.box.dropOldest(LossCause::Memory));
    EXPECT_TRUE(other.box.dropOldest(LossCause::Memory));
    message = {};
    EXPECT_EQ(account.used() + other.holder.held() + another.holder.held(), 0U);
}

TEST_F(Queue, DropsWhatNobodyCouldKeepAndSaysSoInItsPlace) {
    Outbox& queue = make(4);
    Stream chunk = test::dataMessage("N", "2");
    PayloadRef lost = Payload::borrow(chunk);
    queue.pushMessage(numbered(1));
    queue.pushMessage(lost);
    queue.pushMessage(numbered(3));
    lost->lose();
    EXPECT_EQ(read(write()), "1 LOST:1:daemon memory 3 ");
    EXPECT_EQ(counters[Counter::DroppedMemory], 1U);
    expectExact();
}

TEST_F(Queue, DropsAMessageLargerThanItselfAndNothingElse) {
    Outbox& queue = make(3);
    queue.pushMessage(numbered(1));
    queue.pushMessage(numbered(2, 5000));
    EXPECT_EQ(read(write()), "LOST:1:message too large 1 ");
    EXPECT_EQ(queue.totals().droppedBy[static_cast<std::size_t>(Drop::Queue)], 1U);
    expectExact();
}

TEST_F(Queue, CountsWhatWaitsAsDroppedWhenItEnds) {
    Outbox& queue = make(3);
    for (int i = 1; i <= 3; ++i) queue.pushMessage(numbered(i));
    write(sizeOfOne());
    queue.endsFor(Drop::Shutdown);
    paid.reset();
    EXPECT_EQ(counters[Counter::DroppedShutdown], 2U);
    EXPECT_EQ(counters[Counter::MessagesMatched],
              counters[Counter::MessagesDelivered] + counters.dropped());
    EXPECT_EQ(account.used(), 0U);
}

TEST_F(Queue, RefusesRepliesThatNobodyReads) {
    Outbox& queue = make(3);
    const Stream reply(1024, 1);
    std::size_t taken = 0;
    while (queue.pushControl(reply)) taken += reply.size();
    EXPECT_LE(taken, Outbox::kControlLimit);
    EXPECT_GT(taken, Outbox::kControlLimit / 2);
}

}  // namespace
}  // namespace kvx::rvd
