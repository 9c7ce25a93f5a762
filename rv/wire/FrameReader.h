#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "rv/wire/Limits.h"

namespace kvx::wire {

/// The empty message: says nothing but "still here".
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
    bool assembled = false;  ///< `bytes` lies in the reader, not in the chunk (`takeAssembled`)
};

/// Cuts the byte stream of a link into messages.
///
/// A message that lies whole in the chunk is handed out where it lies; one that comes in pieces is
/// put together in the reader. Memory is claimed as bytes arrive, at most twice what has arrived,
/// never from the length word alone. Only lengths and magic words are judged here: the fields
/// inside a message are not looked at.
///
///     reader.feed(chunk);
///     for (Frame f = reader.next(); f.kind != FrameKind::None; f = reader.next()) { ... }
///
/// `Close` and `Broken` are final: `next` goes on giving them, and what is fed is ignored.
class FrameReader {
  public:
    /// Takes the next bytes of the stream. `chunk` must outlive the calls of `next` up to the one
    /// that gives `None`, and the chunk before it must have been used up by then.
    void feed(Bytes chunk);

    /// The next frame in stream order. `bytes` is valid until the following call of `next` or
    /// `feed`, and for frames not `assembled` as long as the chunk. Throws `std::bad_alloc` when a
    /// message cannot be held; the stream is then lost.
    [[nodiscard]] Frame next();

    /// True when `next` would give something other than `None`.
    [[nodiscard]] bool ready() const;

    /// Hands over the memory of the message just given, when it was `assembled`.
    [[nodiscard]] std::vector<std::uint8_t> takeAssembled();

    /// Bytes of the chunk that no frame has used yet.
    [[nodiscard]] std::size_t unread() const { return chunk_.size(); }

    /// Bytes of memory that the reader has claimed.
    [[nodiscard]] std::size_t claimed() const { return partial_.capacity(); }

    /// Bytes held of a message that is not complete yet.
    [[nodiscard]] std::size_t held() const { return handedOut_ ? 0 : partial_.size(); }

  private:
    struct Head {
        FrameKind kind;
        std::size_t length;
    };
    [[nodiscard]] static Head judge(const std::uint8_t* header);

    Frame fromChunk();
    Frame fromPartial();
    Frame finish(FrameKind kind);
    void topUp(std::size_t length);

    Bytes chunk_;
    std::vector<std::uint8_t> partial_;
    bool handedOut_ = false;  // partial_ is the message that the last `next` gave
    FrameKind end_ = FrameKind::None;
};

}  // namespace kvx::wire
