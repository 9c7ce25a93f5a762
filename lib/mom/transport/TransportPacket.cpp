#include "mom/transport/TransportPacket.h"

#include <algorithm>

namespace {

using kvx::wire::readBig16;
using kvx::wire::readBig32;
using kvx::wire::writeBig16;
using kvx::wire::writeBig32;

constexpr std::uint64_t kLargestExpansion = 1032;  // bytes that deflate makes of one, at most
constexpr std::uint64_t kExpansionSlack = 4096;    // bytes

void writeBig64(unsigned char* out, std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    writeBig32(out, static_cast<std::uint32_t>(bits >> 32));
    writeBig32(out + 4, static_cast<std::uint32_t>(bits));
}

std::int64_t readBig64(const unsigned char* at) {
    return static_cast<std::int64_t>((std::uint64_t{readBig32(at)} << 32) | readBig32(at + 4));
}

}  // namespace

namespace kvx::packet {

unsigned char* writeHeader(unsigned char* out, const Header& header) {
    writeBig64(out, header.sequence);
    writeBig64(out + 8, header.count);
    writeBig16(out + 16, header.version);
    writeBig16(out + 18, header.kind);
    writeBig16(out + 20, header.extension);
    writeBig16(out + 22, header.status);
    return out + kHeaderSize;
}

std::optional<Header> readHeader(Bytes packet) {
    if (packet.size() < kHeaderSize) return std::nullopt;
    const unsigned char* at = packet.data();
    Header header;
    header.sequence = readBig64(at);
    header.count = readBig64(at + 8);
    header.version = readBig16(at + 16);
    header.kind = readBig16(at + 18);
    header.extension = readBig16(at + 20);
    header.status = readBig16(at + 22);
    return header;
}

unsigned char* writeRecord(unsigned char* out, Bytes bytes) {
    writeBig32(out, static_cast<std::uint32_t>(bytes.size()));
    return std::copy(bytes.begin(), bytes.end(), out + kLengthSize);
}

bool isPlausible(std::uint32_t uncompressed, std::size_t compressed) {
    return uncompressed <= kLargestPayload &&
           uncompressed <= kLargestExpansion * compressed + kExpansionSlack;
}

std::optional<Bytes> RecordReader::next() {
    while (!rest_.empty()) {
        if (rest_.size() < kLengthSize) return stopAtDefect();
        const auto length = static_cast<std::int32_t>(readBig32(rest_.data()));
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
