#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "rv/wire/Buffer.h"
#include "rv/wire/Limits.h"

namespace kvx::wire {

/// The keepalive: a message without fields.
inline constexpr std::array<std::uint8_t, kHeaderBytes> kKeepaliveBlock = {0,    0,    0,    8,
                                                                           0x99, 0x55, 0xEE, 0xAA};

/// The close notice; the peer answers with the same block.
inline constexpr std::array<std::uint8_t, kHeaderBytes> kCloseBlock = {};

enum class FrameKind {
    None,       ///< no whole frame left: feed the next chunk
    Message,    ///< `bytes` is one complete message, header included, longer than 8 bytes
    Keepalive,  ///< the empty message
    Close,      ///< the peer's close notice; nothing follows
    Broken      ///< another magic, or a length word of 0 to 7 or above 64 MiB; nothing follows
};

struct Frame {
    FrameKind kind = FrameKind::None;
    Bytes bytes;             ///< of a `Message` only
    bool assembled = false;  ///< `bytes` is in the reader, not in the chunk (`takeAssembled`)
};

/// Cuts the byte stream of a link into messages.
///
/// A message that is whole in the chunk is returned in place; one that comes in pieces is assembled
/// in the reader. Memory grows with the bytes received, to at most twice their number, never from
/// the length word alone. Only lengths and magic words are checked, not the fields.
///
///     reader.feed(chunk);
///     for (Frame f = reader.next(); f.kind != FrameKind::None; f = reader.next()) { ... }
///
/// `Close` and `Broken` are final: `next` keeps returning them, and further chunks are ignored.
class FrameReader {
  public:
    /// Takes the next bytes of the stream, which begin with the last chunk's `unread` ones. `chunk`
    /// must stay valid while `next` is called.
    void feed(Bytes chunk);

    /// The next frame in stream order. `bytes` is valid until the following call of `next` or
    /// `feed`, and for frames not `assembled` as long as the chunk. Throws `std::bad_alloc` without
    /// memory for a message; the stream is then unusable.
    [[nodiscard]] Frame next() {
        // At the start of a message that is whole in the chunk, as nearly all are.
        if (partial_.empty() && chunk_.size() > kHeaderBytes) {
            const Head head = judge(chunk_.data());
            if (head.kind == FrameKind::Message && head.length <= chunk_.size())
                return takeWhole(head);
        }
        return nextInPieces();
    }

    /// True when `next` would return something other than `None`.
    [[nodiscard]] bool ready() const;

    /// Moves the memory of the last message to the caller, when it was `assembled`.
    [[nodiscard]] Buffer takeAssembled();

    /// Bytes of the chunk that no frame has used yet.
    [[nodiscard]] std::size_t unread() const { return chunk_.size(); }

    /// Bytes of memory allocated by the reader.
    [[nodiscard]] std::size_t claimed() const { return partial_.capacity(); }

    /// The bytes held of an incomplete message; a new reader that is fed with them is in the same
    /// place of the stream.
    [[nodiscard]] Bytes incomplete() const { return handedOut_ ? Bytes() : partial_.view(); }
    /// Bytes held of an incomplete message.
    [[nodiscard]] std::size_t held() const { return handedOut_ ? 0 : partial_.size(); }

  private:
    struct Head {
        FrameKind kind;
        std::size_t length;
    };
    [[nodiscard]] static Head judge(const std::uint8_t* header) {
        const std::uint32_t length = loadBig32(header);
        const std::uint32_t magic = loadBig32(header + 4);
        if (magic == 0) return {FrameKind::Close, kHeaderBytes};
        if (magic != kMessageMagic) return {FrameKind::Broken, 0};
        if (length < kHeaderBytes || length > kMaxMessageBytes) return {FrameKind::Broken, 0};
        if (length == kHeaderBytes) return {FrameKind::Keepalive, kHeaderBytes};
        return {FrameKind::Message, length};
    }
    Frame takeWhole(const Head& head) {
        const Bytes bytes = chunk_.first(head.length);
        chunk_ = chunk_.subspan(head.length);
        return {head.kind, head.kind == FrameKind::Message ? bytes : Bytes(), false};
    }

    Frame nextInPieces();
    Frame fromChunk();
    Frame fromPartial();
    Frame finish(FrameKind kind);
    void topUp(std::size_t length);

    Bytes chunk_;
    Buffer partial_;
    bool handedOut_ = false;  // partial_ is the result of the last `next`
    FrameKind end_ = FrameKind::None;
};

}  // namespace kvx::wire
