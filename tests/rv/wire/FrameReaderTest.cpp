#include "rv/wire/FrameReader.h"

namespace kvx::wire {
namespace {

using Stream = std::vector<std::uint8_t>;

Stream message(std::size_t length, std::uint8_t fill) {
    Stream bytes(length, fill);
    const auto word = static_cast<std::uint32_t>(length);
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
    std::copy(kKeepaliveBlock.begin() + 4, kKeepaliveBlock.end(), bytes.begin() + 4);
    return bytes;
}

void append(Stream& stream, const Stream& part) {
    stream.insert(stream.end(), part.begin(), part.end());
}

struct Seen {
    std::string kinds;  // one letter a frame
    std::vector<Stream> messages;
};

void drain(FrameReader& reader, Seen& seen) {
    for (;;) {
        const bool ready = reader.ready();
        const Frame frame = reader.next();
        EXPECT_EQ(ready, frame.kind != FrameKind::None);
        if (frame.kind == FrameKind::None) return;
        seen.kinds += "?MKCB"[static_cast<int>(frame.kind)];
        if (frame.kind == FrameKind::Message)
            seen.messages.emplace_back(frame.bytes.begin(), frame.bytes.end());
        if (frame.kind == FrameKind::Close || frame.kind == FrameKind::Broken) return;
    }
}

Seen readIn(const Stream& stream, std::size_t step) {
    FrameReader reader;
    Seen seen;
    for (std::size_t at = 0; at < stream.size(); at += step) {
        // A copy of its own for every chunk, so that a view kept too long shows under the
        // sanitizer.
        const Stream chunk(
            stream.begin() + static_cast<std::ptrdiff_t>(at),
            stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + step, stream.size())));
        reader.feed(chunk);
        drain(reader, seen);
    }
    return seen;
}

// The chunk sizes in which every stream is fed.
class Framing : public testing::TestWithParam<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(ByChunk, Framing, testing::Values(1, 2, 7, 8, 9, 100, 65536));

TEST_P(Framing, CutsMessagesAndKeepalivesInOrder) {
    const std::vector<Stream> sent = {message(9, 1), message(300, 2), message(70'000, 3)};
    const Stream keepalive(kKeepaliveBlock.begin(), kKeepaliveBlock.end());
    const Stream close(kCloseBlock.begin(), kCloseBlock.end());
    Stream stream;
    for (const Stream& part : {sent[0], keepalive, sent[1], sent[2], close, sent[0]})
        append(stream, part);
    const Seen seen = readIn(stream, GetParam());
    EXPECT_EQ(seen.kinds.substr(0, 5), "MKMMC");
    EXPECT_EQ(seen.messages, sent);
}

TEST_P(Framing, RefusesBadHeadersForGood) {
    const std::vector<Stream> headers = {{0, 0, 0, 0, 0x99, 0x55, 0xEE, 0xAA},
                                         {0, 0, 0, 7, 0x99, 0x55, 0xEE, 0xAA},
                                         {4, 0, 0, 1, 0x99, 0x55, 0xEE, 0xAA},
                                         {0xFF, 0xFF, 0xFF, 0xFF, 0x99, 0x55, 0xEE, 0xAA},
                                         {0, 0, 0, 20, 0x99, 0x55, 0xEE, 0xBB}};
    for (const auto& header : headers) {
        Stream stream = message(20, 5);
        append(stream, header);
        append(stream, message(20, 6));
        const Seen seen = readIn(stream, GetParam());
        EXPECT_EQ(seen.kinds.substr(0, 2), "MB");
        EXPECT_EQ(seen.messages.size(), 1U);
    }
}

TEST(FrameReader, HandsOutWholeMessagesWhereTheyLie) {
    Stream chunk = message(40, 1);
    append(chunk, message(60, 2));
    FrameReader reader;
    reader.feed(chunk);
    const Frame first = reader.next();
    EXPECT_FALSE(first.assembled);
    EXPECT_EQ(first.bytes.data(), chunk.data());
    EXPECT_EQ(reader.next().bytes.data(), chunk.data() + 40);
    EXPECT_EQ(reader.unread(), 0U);
}

TEST(FrameReader, GivesUpAnAssembledMessageWithoutACopy) {
    const Stream sent = message(5000, 7);
    FrameReader reader;
    reader.feed(Bytes(sent).first(3000));
    EXPECT_EQ(reader.next().kind, FrameKind::None);
    reader.feed(Bytes(sent).subspan(3000));
    const Frame frame = reader.next();
    ASSERT_TRUE(frame.assembled);
    const std::uint8_t* place = frame.bytes.data();
    const Buffer taken = reader.takeAssembled();
    EXPECT_EQ(taken.view().data(), place);
    EXPECT_TRUE(std::ranges::equal(taken.view(), sent));
    EXPECT_EQ(reader.next().kind, FrameKind::None);
}

TEST(FrameReader, KeepsNoMemoryOfAMessageThatNobodyTook) {
    const Stream sent = message(5000, 7);
    FrameReader reader;
    for (int i = 0; i < 2; ++i) {
        reader.feed(Bytes(sent).first(3000));
        EXPECT_EQ(reader.next().kind, FrameKind::None);
        reader.feed(Bytes(sent).subspan(3000));
        EXPECT_TRUE(reader.next().assembled);
        EXPECT_EQ(reader.next().kind, FrameKind::None);
        EXPECT_EQ(reader.claimed(), 0U);
    }
}

TEST(FrameReader, ClaimsMemoryOnlyForWhatHasArrived) {
    Stream start = message(100, 1);
    start[0] = 4;  // announces 64 MiB + 100
    start[3] = 0;  // exactly 64 MiB
    FrameReader reader;
    reader.feed(start);
    EXPECT_EQ(reader.next().kind, FrameKind::None);
    EXPECT_EQ(reader.held(), 100U);
    EXPECT_LE(reader.claimed(), 200U);
}

}  // namespace
}  // namespace kvx::wire
