#include "rv/wire/ParameterBlock.h"
#include "rv/message/WireReader.h"

#include "rv/wire/Bytes.h"

namespace kvx::wire {
namespace {

// Where the numbers stand.
constexpr std::size_t kHeadAt = 0;
constexpr std::size_t kQueueTypeAt = 4;
constexpr std::size_t kMessageLimitAt = 8;
constexpr std::size_t kWord10At = 10;
constexpr std::size_t kVariantAt = 14;
constexpr std::size_t kSegmentLimitAt = 16;
constexpr std::size_t kFirstLimitAt = 20;
constexpr std::size_t kSecondLimitAt = 24;

}  // namespace

ParameterBytes encode(const ParameterBlock& block) {
    ParameterBytes bytes{};
    storeBig32(&bytes[kHeadAt], block.head);
    storeBig32(&bytes[kQueueTypeAt], block.queueType);
    storeBig16(&bytes[kMessageLimitAt], static_cast<std::uint16_t>(block.messageLimit));
    storeBig16(&bytes[kWord10At], block.word10);
    storeBig16(&bytes[kVariantAt], block.variant);
    storeBig32(&bytes[kSegmentLimitAt], block.segmentLimit);
    storeBig32(&bytes[kFirstLimitAt], block.firstLimit);
    storeBig32(&bytes[kSecondLimitAt], block.secondLimit);
    return bytes;
}

ParameterBlock decodeParameters(std::span<const std::uint8_t, kParameterBlockSize> bytes) {
    ParameterBlock block;
    block.head = loadBig32(&bytes[kHeadAt]);
    block.queueType = loadBig32(&bytes[kQueueTypeAt]);
    block.messageLimit = static_cast<std::int16_t>(loadBig16(&bytes[kMessageLimitAt]));
    block.word10 = loadBig16(&bytes[kWord10At]);
    block.variant = loadBig16(&bytes[kVariantAt]);
    block.segmentLimit = loadBig32(&bytes[kSegmentLimitAt]);
    block.firstLimit = loadBig32(&bytes[kFirstLimitAt]);
    block.secondLimit = loadBig32(&bytes[kSecondLimitAt]);
    return block;
}

}  // namespace kvx::wire
