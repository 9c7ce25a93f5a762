// The layout is in docs/bridge.md. A data frame is checked whole when it is read, so that the walk
// over its messages cannot fail in the middle.

#include "rvbridge/Frame.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kvx::bridge {

namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'K', 'V', 'X', 'B'};
constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kMaxHostBytes = 255;
// Header without the host's name: magic, version, kind, length, epoch, sequence, key epoch, number.
constexpr std::size_t kFixedHeaderBytes = 4 + 1 + 1 + 1 + 8 + 8 + 4 + 8;
constexpr std::size_t kCountBytes = 4;
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kPartFieldBytes = 8;                   // total and offset
constexpr std::size_t kRunFieldBytes = 4 + 8 + kCountBytes;  // key epoch, number
constexpr std::size_t kKindAt = 5;
constexpr std::uint8_t kDirect = 0x80;  // in the kind: the header has the knowledge

bool takeHeader(WireReader& reader, Frame& frame) {
    const std::uint8_t* magic = nullptr;
    std::uint8_t version = 0;
    std::uint8_t kind = 0;
    std::uint8_t hostBytes = 0;
    const std::uint8_t* host = nullptr;
    if (!reader.take(kMagic.size(), magic) || !std::equal(kMagic.begin(), kMagic.end(), magic) ||
        !reader.u8(version) || version != kVersion || !reader.u8(kind) || (kind & ~kDirect) < 1 ||
        (kind & ~kDirect) > 4 || !reader.u8(hostBytes) || hostBytes == 0 ||
        !reader.take(hostBytes, host)) {
        return false;
    }
    frame.kind = static_cast<FrameKind>(kind & ~kDirect);
    frame.host = {reinterpret_cast<const char*>(host), hostBytes};
    if (!take64(reader, frame.epoch) || !take64(reader, frame.first.sequence) ||
        !reader.u32(frame.first.keyEpoch) || !take64(reader, frame.first.number)) {
        return false;
    }
    return (kind & kDirect) == 0 || take64(reader, frame.knowledge.emplace());
}

bool takeMessage(WireReader& reader, Bytes& message) {
    std::uint32_t length = 0;
    const std::uint8_t* at = nullptr;
    if (!reader.u32(length) || !reader.take(length, at)) return false;
    message = {at, length};
    return true;
}

bool takeData(WireReader& reader, Frame& frame) {
    if (!reader.u32(frame.count)) return false;
    if (frame.count == 0) {
        std::uint8_t cause = 0;
        if (!reader.u8(cause) || cause >= kBridgeLossCauses) return false;
        frame.cause = static_cast<LossCause>(cause);
        return reader.left() == 0;
    }
    frame.body = {reader.position(), reader.left()};
    Bytes message;
    for (std::uint32_t i = 0; i < frame.count; ++i) {
        if (!takeMessage(reader, message)) return false;
    }
    return reader.left() == 0;
}

// The messages of a run, and their bytes.
bool takeRun(WireReader& reader, Frame& frame) {
    if (!reader.u32(frame.count) || frame.count == 0) return false;
    const std::uint8_t* const begin = reader.position();
    Bytes message;
    for (std::uint32_t i = 0; i < frame.count; ++i) {
        if (!takeMessage(reader, message)) return false;
    }
    frame.body = {begin, reader.position()};
    return true;
}

bool takeRunHead(WireReader& reader, Frame& frame, std::optional<SubjectView>& subject) {
    subject = SubjectView::parse(reader.position(), reader.left());
    const std::uint8_t* ignored = nullptr;
    return subject && reader.take(subject->length(), ignored) && reader.u32(frame.first.keyEpoch) &&
           take64(reader, frame.first.number);
}

bool takeRuns(WireReader& reader, Frame& frame) {
    if (!takeRun(reader, frame)) return false;
    frame.rest = {reader.position(), reader.left()};
    Frame other;
    std::optional<SubjectView> subject;
    while (reader.left() != 0) {
        if (!takeRunHead(reader, other, subject) || !takeRun(reader, other)) return false;
    }
    return !frame.rest.empty();
}

bool takePart(WireReader& reader, Frame& frame) {
    if (!reader.u32(frame.total) || !reader.u32(frame.offset)) return false;
    frame.body = {reader.position(), reader.left()};
    return !frame.body.empty() && frame.total <= kMaxMessageBytes && frame.offset <= frame.total &&
           frame.body.size() <= frame.total - frame.offset;
}

}  // namespace

std::optional<Frame> readFrame(Bytes bytes) {
    WireReader reader(bytes.data(), bytes.size());
    Frame frame;
    if (!takeHeader(reader, frame)) return std::nullopt;
    bool isWhole = true;
    switch (frame.kind) {
        case FrameKind::Data:
            isWhole = takeData(reader, frame);
            break;
        case FrameKind::Part:
            isWhole = takePart(reader, frame);
            break;
        case FrameKind::Runs:
            frame.kind = FrameKind::Data;
            isWhole = takeRuns(reader, frame);
            break;
        case FrameKind::Control:
            frame.body = {reader.position(), reader.left()};
            break;
    }
    return isWhole ? std::optional(frame) : std::nullopt;
}

bool nextRun(Frame& frame, SubjectView& subject) {
    if (frame.rest.empty()) return false;
    WireReader reader(frame.rest.data(), frame.rest.size());
    std::optional<SubjectView> next;
    frame.first.sequence += frame.count;
    (void)(takeRunHead(reader, frame, next) && takeRun(reader, frame));
    frame.rest = {reader.position(), reader.left()};
    subject = *next;
    return true;
}

bool FrameMessages::next(Bytes& message) {
    return takeMessage(reader_, message);
}

FrameWriter::FrameWriter(std::string_view host, std::uint64_t epoch, std::size_t limit)
    : host_(host.substr(0, kMaxHostBytes)), epoch_(epoch), limit_(std::max(limit, kLeastLimit)) {}

void FrameWriter::setLimit(std::size_t limit) {
    limit_ = std::max(limit, kLeastLimit);
}

std::size_t FrameWriter::headerBytes() const {
    return kFixedHeaderBytes + host_.size() + sizeof(std::uint64_t);
}

bool FrameWriter::fitsWhole(std::size_t bytes) const {
    return bytes <= limit_ - headerBytes() - kCountBytes - kLengthBytes;
}

std::size_t FrameWriter::partBytes() const {
    return limit_ - headerBytes() - kPartFieldBytes;
}

void FrameWriter::put32(std::uint32_t value) {
    bytes_.resize(bytes_.size() + sizeof value);
    storeBig32(bytes_.data() + bytes_.size() - sizeof value, value);
}

void FrameWriter::put64(std::uint64_t value) {
    bytes_.resize(bytes_.size() + sizeof value);
    storeBig64(bytes_.data() + bytes_.size() - sizeof value, value);
}

void FrameWriter::begin(FrameKind kind, const MessageNumber& number) {
    bytes_.assign(kMagic.begin(), kMagic.end());
    bytes_.push_back(kVersion);
    bytes_.push_back(static_cast<std::uint8_t>(kind) | (knowledge_ ? kDirect : 0));
    bytes_.push_back(static_cast<std::uint8_t>(host_.size()));
    bytes_.insert(bytes_.end(), host_.begin(), host_.end());
    put64(epoch_);
    put64(number.sequence);
    put32(number.keyEpoch);
    put64(number.number);
    if (knowledge_) put64(*knowledge_);
}

bool FrameWriter::append(const MessageNumber& number, Bytes message) {
    if (count_ == 0) {
        begin(FrameKind::Data, number);
        countAt_ = bytes_.size();
        put32(0);
    } else if (number.sequence != next_.sequence || number.keyEpoch != next_.keyEpoch ||
               number.number != next_.number ||
               bytes_.size() + kLengthBytes + message.size() > limit_) {
        return false;
    }
    putMessage(number, message);
    return true;
}

bool FrameWriter::appendRun(SubjectView subject, const MessageNumber& number, Bytes message) {
    const std::size_t more = subject.length() + kRunFieldBytes + kLengthBytes + message.size();
    if (number.sequence != next_.sequence || bytes_.size() + more > limit_) return false;
    endRun();
    bytes_[kKindAt] = static_cast<std::uint8_t>(FrameKind::Runs) | (bytes_[kKindAt] & kDirect);
    const auto encoded = subject.bytes();
    bytes_.insert(bytes_.end(), encoded.begin(), encoded.end());
    put32(number.keyEpoch);
    put64(number.number);
    countAt_ = bytes_.size();
    put32(0);
    putMessage(number, message);
    return true;
}

void FrameWriter::putMessage(const MessageNumber& number, Bytes message) {
    put32(static_cast<std::uint32_t>(message.size()));
    bytes_.insert(bytes_.end(), message.begin(), message.end());
    next_ = {number.sequence + 1, number.keyEpoch, number.number + 1};
    ++count_;
}

void FrameWriter::endRun() {
    storeBig32(bytes_.data() + countAt_, std::exchange(count_, 0));
}

Bytes FrameWriter::open() {
    storeBig32(bytes_.data() + countAt_, count_);
    return bytes_;
}

void FrameWriter::clear() {
    count_ = 0;
    bytes_.clear();
}

Bytes FrameWriter::part(const MessageNumber& number, Bytes message, std::size_t at) {
    begin(FrameKind::Part, number);
    put32(static_cast<std::uint32_t>(message.size()));
    put32(static_cast<std::uint32_t>(at));
    const Bytes bytes = message.subspan(at, std::min(partBytes(), message.size() - at));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return bytes_;
}

Bytes FrameWriter::mark(const MessageNumber& next, LossCause cause) {
    begin(FrameKind::Data, next);
    put32(0);
    bytes_.push_back(static_cast<std::uint8_t>(cause));
    return bytes_;
}

Bytes FrameWriter::control(Bytes payload, const MessageNumber& place) {
    begin(FrameKind::Control, place);
    bytes_.insert(bytes_.end(), payload.begin(), payload.end());
    return bytes_;
}

}  // namespace kvx::bridge
