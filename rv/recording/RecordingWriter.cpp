// A record is written in any order and has no mark of being complete: its checks tell. Where the
// end of the ring has no room for the next record, that one begins at the start, at the position
// that has that place.

#include "rv/recording/RecordingWriter.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "platform/Process.h"
#include "rv/recording/RecordFormat.h"

namespace kvx::recording {
namespace {

std::string_view nameOf(std::string_view name) {
    return name.substr(0, kMostNameBytes);
}

static_assert(kAtSubjectSize == kAtMessageSize + 4 && kAtServiceSize == kAtMessageSize + 6 &&
                  kAtNetworkSize == kAtMessageSize + 7 && kAtMessageSize == kAtTime + 16 &&
                  kRecordHeadBytes == kAtTime + 24,
              "`add` writes the sizes as one number, and takes the head as three");

std::size_t fixedBytes(const Entry& entry) {
    return static_cast<std::size_t>(kRecordHeadBytes + padded(entry.subject.length()) +
                                    padded(nameOf(entry.service).size()) +
                                    padded(nameOf(entry.network).size()));
}

}  // namespace

std::uint64_t RecordingWriter::capacityFor(std::uint64_t bytes) {
    return std::max(padded(bytes), kLeastCapacity);
}

std::uint64_t RecordingWriter::bytesFor(const Entry& entry) {
    return padded(fixedBytes(entry) + entry.message.size());
}

std::uint64_t RecordingWriter::newSeed() {
    std::random_device random;
    return static_cast<std::uint64_t>(random()) << 32U | random();
}

RecordingWriter::RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t seed,
                                 std::uint64_t created)
    : ring_(memory.subspan(kFileHeadBytes)), seed_(seed) {
    std::memcpy(memory.data(), kMagic.data(), kMagic.size());
    storeBig64(memory.data() + kAtCapacity, ring_.size());
    storeBig64(memory.data() + kAtSeed, seed);
    storeBig64(memory.data() + kAtCreated, created);
    storeBig64(memory.data() + kAtProcess, platform::processId());
}

RecordingWriter::RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t position)
    : ring_(memory.subspan(kFileHeadBytes)),
      seed_(loadBig64(memory.data() + kAtSeed)),
      position_(position),
      offset_(static_cast<std::size_t>(position % ring_.size())) {
    storeBig64(memory.data() + kAtProcess, platform::processId());
}

void RecordingWriter::add(const Entry& entry) noexcept {
    const std::size_t fixed = fixedBytes(entry);
    const std::size_t kept = std::min(entry.message.size(), ring_.size() - fixed);
    const std::size_t length = fixed + kept;
    const auto whole = static_cast<std::size_t>(padded(length));
    if (whole > ring_.size() - offset_) {
        position_ += ring_.size() - offset_;
        offset_ = 0;
    }
    std::uint8_t* const record = ring_.data() + offset_;
    const std::string_view service = nameOf(entry.service);
    const std::string_view network = nameOf(entry.network);
    const auto shortLength = static_cast<std::uint32_t>(length);
    storeBig64(record + kAtPosition, position_);
    storeBig32(record + kAtLength, shortLength);
    storeBig32(record + kAtHeadCheck, headCheck(seed_, position_, shortLength));
    storeBig64(record + kAtTime, entry.time);
    storeBig64(record + kAtSession, entry.session);
    const std::uint64_t sizes = std::uint64_t{entry.messageSize} << 32U |
                                std::uint64_t{entry.subject.length() & 0xFFFF} << 16U |
                                service.size() << 8U | network.size();
    storeBig64(record + kAtMessageSize, sizes);
    Check check(seed_, position_);
    check.take(entry.time, entry.session, sizes);
    std::uint8_t* at = record + kRecordHeadBytes;
    const auto append = [&](const void* bytes, std::size_t count) {
        if (count == 0) return;
        check.copy(at, bytes, count);
        at += padded(count);
    };
    append(entry.subject.data(), entry.subject.length());
    append(service.data(), service.size());
    append(network.data(), network.size());
    append(entry.message.data(), kept);
    storeBig64(record + kAtCheck, check.value());
    position_ += whole;
    offset_ += whole;
}

}  // namespace kvx::recording
