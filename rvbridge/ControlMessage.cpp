#include "rvbridge/ControlMessage.h"

#include <algorithm>

namespace kvx::bridge {

namespace {

constexpr std::string_view kReservedByDaemon = "_RVD";

bool takeText(WireReader& reader, std::string_view& text) {
    std::uint8_t size = 0;
    const std::uint8_t* at = nullptr;
    if (!reader.u8(size) || size > ControlMessage::kMaxText || !reader.take(size, at)) return false;
    text = {reinterpret_cast<const char*>(at), size};
    return true;
}

}  // namespace

bool ControlMessage::isReserved(SubjectView subject) {
    return subject.first() == kReservedElement || subject.first() == kReservedByDaemon;
}

std::optional<SubjectView> ControlMessage::takeSubject(WireReader& reader) {
    const auto subject = SubjectView::parse(reader.position(),
                                            std::min<std::size_t>(reader.left(), kMaxSubjectBytes));
    if (!subject) return std::nullopt;
    return reader.skip(subject->length()) && !isReserved(*subject) ? subject : std::nullopt;
}

bool ControlMessage::readState(WireReader& reader) {
    std::uint8_t flags = 0;
    if (!take64(reader, change) || !reader.u32(count) || !take64(reader, digest) ||
        !reader.u8(flags) || !takeText(reader, since) || !takeText(reader, daemon)) {
        return false;
    }
    isReady = (flags & kReadyFlag) != 0;
    return true;
}

// Checks the list whole, so that it can be walked through without checks.
bool ControlMessage::readList(WireReader& reader) {
    list = {reader.position(), reader.left()};
    while (reader.left() != 0) {
        std::uint8_t what = kAdd;
        if (op == kChange && (!reader.u8(what) || what < kAdd || what > kRemove)) return false;
        if (!takeSubject(reader)) return false;
    }
    return true;
}

bool ControlMessage::read(Bytes payload) {
    WireReader reader(payload.data(), payload.size());
    std::uint8_t flag = 0;
    if (!reader.u8(op)) return false;
    bool isGood = true;
    switch (op) {
        case kHello:
        case kBeat:
            isGood = readState(reader);
            break;
        case kChange:
            isGood = take64(reader, change) && readList(reader);
            break;
        case kSnapshot:
            isGood = readState(reader) && reader.u32(part) && reader.u8(flag) && readList(reader);
            isLast = flag != 0;
            break;
        case kAsk:
            isGood = take64(reader, epoch);
            break;
        case kTaken:
            isGood = take64(reader, epoch) && reader.u8(flag);
            isReady = (flag & kReadyFlag) != 0;
            isGood = isGood && reader.u8(flag);
            sameName = flag == kSameName;
            break;
        case kPing:
            isGood = take64(reader, stamp);
            break;
        case kPong:
            isGood = take64(reader, epoch) && take64(reader, stamp) && take64(reader, knowledge);
            break;
        case kMarks:
        case kMarked:
            isGood = take64(reader, epoch) && take64(reader, after);
            break;
        case kBye:
            break;
        default:
            return false;
    }
    return isGood && reader.left() == 0;
}

}  // namespace kvx::bridge
