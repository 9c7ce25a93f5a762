#include "mom/transport/TransportPacket.h"

#include <algorithm>

#include "rv/message/WireReader.h"

namespace {

constexpr std::uint64_t kLargestExpansion = 1032;  // most bytes that one compressed byte expands to
constexpr std::uint64_t kExpansionSlack = 4096;    // bytes

}  // namespace

namespace kvx::packet {

unsigned char* writeHeader(unsigned char* out, const Header& header) {
    storeBig64(out, static_cast<std::uint64_t>(header.sequence));
    storeBig64(out + 8, static_cast<std::uint64_t>(header.count));
    storeBig16(out + 16, header.version);
    storeBig16(out + 18, header.kind);
    storeBig16(out + 20, header.extension);
    storeBig16(out + 22, header.status);
    return out + kHeaderSize;
}

std::optional<Header> readHeader(Bytes packet) {
    if (packet.size() < kHeaderSize) return std::nullopt;
    const unsigned char* at = packet.data();
    Header header;
    header.sequence = static_cast<std::int64_t>(loadBig64(at));
    header.count = static_cast<std::int64_t>(loadBig64(at + 8));
    header.version = loadBig16(at + 16);
    header.kind = loadBig16(at + 18);
    header.extension = loadBig16(at + 20);
    header.status = loadBig16(at + 22);
    return header;
}

unsigned char* writeRecord(unsigned char* out, Bytes bytes) {
    storeBig32(out, static_cast<std::uint32_t>(bytes.size()));
    return std::copy(bytes.begin(), bytes.end(), out + kLengthSize);
}

bool isPlausible(std::uint32_t uncompressed, std::size_t compressed) {
    return uncompressed <= kLargestPayload &&
           uncompressed <= kLargestExpansion * compressed + kExpansionSlack;
}

std::optional<Bytes> RecordReader::next() {
    while (!rest_.empty()) {
        if (rest_.size() < kLengthSize) return stopAtDefect();
        const auto length = static_cast<std::int32_t>(loadBig32(rest_.data()));
        rest_ = rest_.subspan(kLengthSize);
        if (length <= 0) continue;
        if (static_cast<std::size_t>(length) > rest_.size()) return stopAtDefect();
        const Bytes record = rest_.first(static_cast<std::size_t>(length));
        rest_ = rest_.subspan(record.size());
        return record;
    }
    return std::nullopt;
}

std::optional<Bytes> RecordReader::stopAtDefect() {
    rest_ = {};
    defective_ = true;
    return std::nullopt;
}

}  // namespace kvx::packet
