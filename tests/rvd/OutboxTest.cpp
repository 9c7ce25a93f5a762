#include "rvd/Outbox.h"

#include <array>
#include <optional>

#include "rv/message/WireFormat.h"
#include "tests/support/RawClient.h"

namespace kvx::rvd {
namespace {

using Stream = std::vector<std::uint8_t>;

PayloadRef numbered(int number, std::size_t padding = 0) {
    return Payload::own(test::dataMessage("N", std::to_string(number) + std::string(padding, ' ')));
}

class Queue : public testing::Test {
  protected:
    static std::size_t sizeOfOne() { return numbered(1)->size(); }

    // A queue that holds `messages` of the one-digit messages.
    Outbox& make(std::size_t messages) {
        return box.emplace(messages * sizeOfOne(), pool, counters);
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
    OutboxPool pool{1 << 20};
    std::optional<Outbox> box;
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
        EXPECT_EQ(pool.used(), 0U);
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

TEST_F(Queue, DropsAMessageLargerThanItselfAndNothingElse) {
    Outbox& queue = make(3);
    queue.pushMessage(numbered(1));
    queue.pushMessage(numbered(2, 5000));
    EXPECT_EQ(read(write()), "LOST:1:message too large 1 ");
    expectExact();
}

TEST_F(Queue, TakesFromTheFullestWhenAllTogetherHoldTooMuch) {
    const std::size_t one = sizeOfOne();
    OutboxPool small(10 * (one + 128));
    Outbox full(100 * one, small, counters);
    Outbox idle(100 * one, small, counters);
    for (int i = 0; i < 3; ++i) idle.pushMessage(numbered(i));
    for (int i = 0; i < 9; ++i) full.pushMessage(numbered(i));
    EXPECT_EQ(idle.totals().dropped, 0U);
    EXPECT_EQ(full.totals().dropped, 2U);
    EXPECT_EQ(counters[Counter::DroppedMemory], 2U);
}

TEST_F(Queue, PassesOverAQueueThatHoldsOnlyABegunMessage) {
    OutboxPool small(5000);
    Outbox begun(10'000, small, counters);
    Outbox other(10'000, small, counters);
    begun.pushMessage(numbered(1, 4000));
    begun.written(1);
    for (int i = 0; i < 9; ++i) other.pushMessage(numbered(i));
    EXPECT_LE(small.used(), small.limit());
    EXPECT_EQ(begun.totals().dropped, 0U);
    EXPECT_GT(other.totals().dropped, 0U);
}

TEST_F(Queue, CountsWhatWaitsAsDroppedWhenItsSessionEnds) {
    Outbox& queue = make(3);
    for (int i = 1; i <= 3; ++i) queue.pushMessage(numbered(i));
    write(sizeOfOne());
    box.reset();
    EXPECT_EQ(counters[Counter::DroppedSessionEnded], 2U);
    EXPECT_EQ(counters[Counter::MessagesMatched],
              counters[Counter::MessagesDelivered] + counters.dropped());
    EXPECT_EQ(pool.used(), 0U);
}

TEST_F(Queue, RefusesRepliesThatNobodyReads) {
    Outbox& queue = make(3);
    const Stream reply(1024, 1);
    std::size_t taken = 0;
    while (queue.pushControl(reply)) taken += reply.size();
    EXPECT_EQ(taken, Outbox::kControlLimit);
}

TEST_F(Queue, SharesOneCopyOfAMessageAmongAllQueues) {
    Stream chunk = test::dataMessage("N", "1");
    Outbox& first = make(3);
    Outbox second(1000, pool, counters);
    PayloadRef message = Payload::borrow(chunk);
    first.pushMessage(message);
    second.pushMessage(message);
    message->keep();
    std::fill(chunk.begin(), chunk.end(), 0);
    std::array<wire::Bytes, 1> a;
    std::array<wire::Bytes, 1> b;
    ASSERT_EQ(first.gather(a) + second.gather(b), 2U);
    EXPECT_EQ(a[0].data(), b[0].data());
    EXPECT_EQ(read(write()), "1 ");
}

}  // namespace
}  // namespace kvx::rvd
