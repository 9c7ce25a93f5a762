// Cutting a byte stream into messages.
//
// The reader is in one of three states. With `partial_` empty it is at the start of a message and
// reads the chunk in place; a message that is whole there is not copied. With `partial_` filled it
// is inside a message that began in an earlier chunk, and copies bytes until the header, then the
// message, is complete. With `handedOut_` the message in `partial_` was the last result and is
// released at the next call. A close notice and a broken header end the stream.

#include "rv/wire/FrameReader.h"

#include <algorithm>
#include <utility>

namespace kvx::wire {

void FrameReader::feed(Bytes chunk) {
    if (end_ == FrameKind::None) chunk_ = chunk;
}

Frame FrameReader::nextInPieces() {
    if (handedOut_) (void)takeAssembled();
    if (end_ != FrameKind::None) return {end_, {}, false};
    return partial_.empty() ? fromChunk() : fromPartial();
}

Frame FrameReader::fromChunk() {
    if (chunk_.size() >= kHeaderBytes) {
        const Head head = judge(chunk_.data());
        if (head.kind == FrameKind::Close || head.kind == FrameKind::Broken) {
            return finish(head.kind);
        }
        if (chunk_.size() >= head.length) return takeWhole(head);
        topUp(head.length);
        return {};
    }
    if (!chunk_.empty()) topUp(kHeaderBytes);
    return {};
}

Frame FrameReader::fromPartial() {
    if (partial_.size() < kHeaderBytes) {
        topUp(kHeaderBytes);
        if (partial_.size() < kHeaderBytes) return {};
    }
    const Head head = judge(partial_.view().data());
    if (head.kind == FrameKind::Close || head.kind == FrameKind::Broken) return finish(head.kind);
    topUp(head.length);
    if (partial_.size() < head.length) return {};
    handedOut_ = true;
    if (head.kind == FrameKind::Keepalive) return {head.kind, {}, false};
    return {head.kind, partial_.view(), true};
}

Frame FrameReader::finish(FrameKind kind) {
    end_ = kind;
    chunk_ = {};
    (void)std::exchange(partial_, {});
    return {kind, {}, false};
}

// Copies bytes of the chunk until `partial_` has `length` of them or the chunk is used up.
void FrameReader::topUp(std::size_t length) {
    const std::size_t taken = std::min(length - partial_.size(), chunk_.size());
    const std::size_t after = partial_.size() + taken;
    if (after > partial_.capacity()) {
        partial_.reserve(std::min(length, std::max(after, 2 * partial_.size())));
    }
    partial_.append(chunk_.first(taken));
    chunk_ = chunk_.subspan(taken);
}

bool FrameReader::ready() const {
    if (end_ != FrameKind::None) return true;
    const std::size_t have = held() + chunk_.size();
    if (have < kHeaderBytes) return false;
    std::array<std::uint8_t, kHeaderBytes> header{};
    const std::size_t early = std::min<std::size_t>(held(), kHeaderBytes);
    std::copy_n(partial_.view().begin(), early, header.begin());
    std::copy_n(chunk_.begin(), kHeaderBytes - early,
                header.begin() + static_cast<std::ptrdiff_t>(early));
    const Head head = judge(header.data());
    return head.kind != FrameKind::Message || have >= head.length;
}

Buffer FrameReader::takeAssembled() {
    if (!handedOut_) return {};
    handedOut_ = false;
    return std::exchange(partial_, {});
}

}  // namespace kvx::wire
