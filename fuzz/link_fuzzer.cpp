// Unchecked input of a link: greetings, parameter blocks, the stream of frames, the fields of
// control messages. The stream is read twice, whole and in pieces whose sizes the input chooses;
// both readings must agree, and memory is bounded by the bytes received.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Negotiation.h"

namespace {

using namespace kvx::wire;
using Step = kvx::FieldCursor::Step;

void require(bool condition) {
    if (!condition) std::abort();
}

bool liesIn(Bytes part, Bytes whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

void readMessage(Bytes message) {
    require(liesIn(readRouting(message).subject, message));
    (void)readInit(message);
    (void)readReply(message);
    kvx::FieldCursor cursor(message);
    kvx::WireField field;
    auto step = cursor.next(field);
    for (; step == Step::kField; step = cursor.next(field)) require(liesIn(field.bytes(), message));
    // The cursor reaches the end of a valid message.
    const int code = rvmsg_Validate(message.data(), message.size());
    if (code == 0) require(step == Step::kEnd);
    Envelope envelope;
    require(openEnvelope(message, envelope) == code);
    require(liesIn(envelope.subject, message) && liesIn(envelope.data.bytes(), message));
    (void)envelope.replyText();
}

struct Frames {
    std::vector<FrameKind> kinds;
    std::vector<std::vector<std::uint8_t>> messages;
    bool operator==(const Frames&) const = default;
};

// True when the stream has ended.
bool drain(FrameReader& reader, Frames& frames) {
    for (;;) {
        const bool ready = reader.ready();
        const Frame frame = reader.next();
        require(ready == (frame.kind != FrameKind::None));
        if (frame.kind == FrameKind::None) return false;
        frames.kinds.push_back(frame.kind);
        if (frame.kind == FrameKind::Close || frame.kind == FrameKind::Broken) return true;
        if (frame.kind != FrameKind::Message) continue;
        readMessage(frame.bytes);
        frames.messages.emplace_back(frame.bytes.begin(), frame.bytes.end());
    }
}

Frames readInPieces(Bytes stream, Bytes sizes) {
    FrameReader reader;
    Frames frames;
    std::size_t arrived = 0;
    for (std::size_t turn = 0; arrived < stream.size(); ++turn) {
        const std::size_t wanted = sizes.empty() ? stream.size() : sizes[turn % sizes.size()] + 1U;
        const Bytes part = stream.subspan(arrived, std::min(wanted, stream.size() - arrived));
        const std::vector<std::uint8_t> chunk(part.begin(), part.end());
        arrived += chunk.size();
        reader.feed(chunk);
        if (drain(reader, frames)) break;
        require(reader.claimed() <= 2 * arrived);
    }
    return frames;
}

void negotiate(Bytes bytes) {
    if (bytes.size() < kParameterBlockSize) return;
    const ParameterBlock block = decodeParameters(bytes.first<kParameterBlockSize>());
    require(decodeParameters(encode(block)) == block);
    const NegotiationStep answer = clientStep(block);
    if (answer.action == NegotiationStep::Action::Send) {
        require(answer.block.firstLimit <= kLinkLimit && answer.block.secondLimit <= kLinkLimit);
    }
    const NegotiationStep verdict = daemonStep(block);
    require(verdict.block.head == kAccept || verdict.block.head == kRefuse);
    (void)daemonStepV3(block);
    QueueLimits limits;
    if (queueLimits(block, limits) == 0) require(limits.bytes > 0 && limits.bytes <= kLinkLimit);
    (void)isKnownVersion(decodeGreeting(bytes.first<kGreetingSize>()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Bytes input(data, size);
    const std::size_t pieces = std::min<std::size_t>(data[0] % 8U, size - 1);
    const Bytes sizes = input.subspan(1, pieces);
    const Bytes stream = input.subspan(1 + pieces);
    negotiate(stream);
    require(readInPieces(stream, {}) == readInPieces(stream, sizes));
    return 0;
}
