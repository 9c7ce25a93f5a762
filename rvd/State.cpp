// Numbers take 8 bytes of the host's order: writer and reader are on one host. The first time that
// a message is written its number is one that has not come before, and its bytes follow.

#include "rvd/State.h"

#include <cstring>

#include "platform/DescriptorChannel.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kBuffer = 1 << 20U;  // bytes

}  // namespace

void StateWriter::append(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    buffer_.insert(buffer_.end(), bytes, bytes + size);
    if (buffer_.size() >= kBuffer) flush();
}

void StateWriter::flush() {
    if (!platform::MemoryFile::write(file_, buffer_)) throw StateError("no room for the state");
    buffer_.clear();
}

void StateWriter::number(std::uint64_t value) {
    append(&value, sizeof value);
}

void StateWriter::bytes(wire::Bytes value) {
    number(value.size());
    append(value.data(), value.size());
}

void StateWriter::text(std::string_view value) {
    number(value.size());
    append(value.data(), value.size());
}

void StateWriter::payload(const PayloadRef& message) {
    const auto [place, isNew] = written_.emplace(&*message, written_.size());
    number(place->second);
    if (isNew) bytes(message->bytes());
}

std::uint64_t StateReader::number() {
    std::uint64_t value = 0;
    if (left_.size() < sizeof value) throw StateError("the state is cut off");
    std::memcpy(&value, left_.data(), sizeof value);
    left_ = left_.subspan(sizeof value);
    return value;
}

wire::Bytes StateReader::bytes() {
    const std::uint64_t size = number();
    if (size > left_.size()) throw StateError("the state is cut off");
    const wire::Bytes value = left_.first(size);
    left_ = left_.subspan(size);
    return value;
}

std::string_view StateReader::text() {
    const wire::Bytes value = bytes();
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

PayloadRef StateReader::payload() {
    const std::uint64_t place = number();
    if (place == payloads_.size()) payloads_.push_back(Payload::copy(bytes()));
    if (place >= payloads_.size()) throw StateError("the state is not sound");
    return payloads_[place];
}

}  // namespace kvx::rvd
