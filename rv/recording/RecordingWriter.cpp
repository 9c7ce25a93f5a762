// A head and what it is of are written in any order and have no mark of being complete: their
// checks tell. Where the end of the ring has no room for the next message, it begins a run at the
// start, at the position that has that place.

#include "rv/recording/RecordingWriter.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "platform/Process.h"

namespace kvx::recording {
namespace {

std::string_view nameOf(std::string_view name) {
    return name.substr(0, kMostNameBytes);
}

std::uint64_t headBytes(const Origin& origin) {
    return runHeadBytes(nameOf(origin.service).size(), nameOf(origin.network).size());
}

// In front of the beginning of a message.
std::uint64_t partBytes(SubjectView subject) {
    return kPartHeadBytes + padded(subject.length());
}

}  // namespace

std::uint64_t RecordingWriter::capacityFor(std::uint64_t bytes) {
    return std::max(padded(bytes), kLeastCapacity);
}

std::uint64_t RecordingWriter::bytesFor(const Entry& entry) {
    const bool whole = isWhole(entry.subject, entry.message, entry.messageSize);
    return headBytes(entry) + kMessageHeadBytes + (whole ? 0 : partBytes(entry.subject)) +
           padded(entry.message.size());
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
    begin({});
}

RecordingWriter::RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t position)
    : ring_(memory.subspan(kFileHeadBytes)),
      seed_(loadBig64(memory.data() + kAtSeed)),
      position_(position),
      offset_(static_cast<std::size_t>(position % ring_.size())) {
    storeBig64(memory.data() + kAtProcess, platform::processId());
    begin({});
}

void RecordingWriter::begin(const Origin& origin) noexcept {
    const std::string_view service = nameOf(origin.service);
    const std::string_view network = nameOf(origin.network);
    runHeadSize_ = static_cast<std::size_t>(headBytes(origin));
    mostBytes_ = ring_.size() - runHeadSize_ - kMessageHeadBytes;
    runEnd_ = 0;
    std::memset(runHead_.data() + runHeadSize_ - kUnit, 0, kUnit);
    storeBig64(runHead_.data() + kAtTime, origin.time);
    storeBig64(runHead_.data() + kAtSession, origin.session);
    runHead_[kAtServiceSize] = static_cast<std::uint8_t>(service.size());
    runHead_[kAtNetworkSize] = static_cast<std::uint8_t>(network.size());
    std::ranges::copy(network, std::ranges::copy(service, runHead_.begin() + kAtNames).out);
}

void RecordingWriter::addWhole(std::span<const std::uint8_t> message,
                               std::uint32_t subjectAt) noexcept {
    std::uint8_t* const head = place(message.size());
    Check check(run_, position_);
    check.copy(head + kMessageHeadBytes, message.data(), message.size());
    finish(head, static_cast<std::uint32_t>(message.size()), subjectAt, check);
}

void RecordingWriter::addPart(SubjectView subject, std::span<const std::uint8_t> message,
                              std::uint32_t size) noexcept {
    const auto before = static_cast<std::size_t>(partBytes(subject));
    const std::size_t kept = std::min(message.size(), mostBytes_ - before);
    std::uint8_t* const head = place(before + kept);
    std::uint8_t* const content = head + kMessageHeadBytes;
    Check check(run_, position_);
    std::array<std::uint8_t, kPartHeadBytes> part{};
    storeBig32(part.data(), size);
    check.copy(content, part.data(), part.size());
    check.copy(content + kPartHeadBytes, subject.data(), subject.length());
    check.copy(content + before, message.data(), kept);
    finish(head, static_cast<std::uint32_t>(before + kept) | kIsPart, kPartHeadBytes, check);
}

// Where the head of the next message is, of which so many bytes follow.
inline std::uint8_t* RecordingWriter::place(std::size_t length) noexcept {
    const std::size_t room = kMessageHeadBytes + length;
    if (offset_ >= runEnd_ || room > ring_.size() - offset_) beginRun(room);
    return ring_.data() + offset_;
}

void RecordingWriter::beginRun(std::size_t room) noexcept {
    if (runHeadSize_ + room > ring_.size() - offset_) {
        position_ += ring_.size() - offset_;
        offset_ = 0;
    }
    storeBig64(runHead_.data() + kAtPosition, position_);
    Check check(seed_, position_);
    check.take(runHead_.data() + kAtTime, runHeadSize_ - kAtTime);
    run_ = check.value();
    storeBig64(runHead_.data() + kAtRunCheck, run_);
    std::memcpy(ring_.data() + offset_, runHead_.data(), runHeadSize_);
    runEnd_ = offset_ + static_cast<std::size_t>(runBytes(ring_.size()));
    position_ += runHeadSize_;
    offset_ += runHeadSize_;
}

inline void RecordingWriter::finish(std::uint8_t* head, std::uint32_t length,
                                    std::uint32_t subjectAt, const Check& check) noexcept {
    const std::uint64_t numbers = std::uint64_t{length} << 32U | subjectAt;
    storeBig64(head,
               std::uint64_t{headCheck(run_, position_, numbers)} << 32U | check.shortValue());
    storeBig64(head + kAtLength, numbers);
    const std::uint64_t whole = kMessageHeadBytes + padded(length & ~kIsPart);
    position_ += whole;
    offset_ += static_cast<std::size_t>(whole);
}

}  // namespace kvx::recording
