// The packer writes straight into the result buffer: no tree of values, no second copy.

#include "foundation/RecordEncoder.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <msgpack/pack.hpp>
#include <new>

namespace kvx {

namespace {

constexpr std::size_t kRecordHeadBytes = 5;  // at most
// The heads of a pair, a name and a value, or an integer, at most.
constexpr std::size_t kFieldHeadBytes = 1 + 5 + 9;

}  // namespace

void RecordEncoder::Buffer::write(const char* bytes, std::size_t length) {
    if (length > capacity_ - length_) growTo(std::max(length_ + length, 2 * capacity_));
    std::memcpy(bytes_.get() + length_, bytes, length);
    length_ += length;
}

void RecordEncoder::Buffer::growTo(std::size_t capacity) {
    auto* grown = static_cast<unsigned char*>(std::realloc(bytes_.get(), capacity));
    if (grown == nullptr) throw std::bad_alloc();
    static_cast<void>(bytes_.release());
    bytes_.reset(grown);
    capacity_ = capacity;
}

namespace {

template <class Stream>
void packText(msgpack::packer<Stream>& packer, const char* text, std::size_t length) {
    packer.pack_str(static_cast<std::uint32_t>(length));
    packer.pack_str_body(text, static_cast<std::uint32_t>(length));
}

template <class Stream>
void packValue(msgpack::packer<Stream>& packer, const CVekAtom& value) {
    const auto length = static_cast<std::uint32_t>(value.RALength());
    switch (value.RAType()) {
        case VEK_TYPE_STRING:
            packText(packer, value.RAString(), length);
            break;
        case VEK_TYPE_INT:
            packer.pack_int32(value.RAInt());
            break;
        case VEK_TYPE_INT64:
            packer.pack_fix_int64(value.RAInt64());
            break;
        case VEK_TYPE_BYTES: {
            unsigned char* bytes = nullptr;
            value.RAUChar(&bytes, nullptr);
            packer.pack_bin(length);
            if (length > 0) packer.pack_bin_body(reinterpret_cast<const char*>(bytes), length);
            break;
        }
    }
}

}  // namespace

RecordEncoder::RecordEncoder(std::size_t fields, std::size_t bytes)
    : buffer_(kRecordHeadBytes + fields * kFieldHeadBytes + bytes) {
    msgpack::packer<Buffer>(buffer_).pack_array(static_cast<std::uint32_t>(fields));
}

void RecordEncoder::add(const std::string& name, const CVekAtom& value) {
    msgpack::packer<Buffer> packer(buffer_);
    packer.pack_array(2);
    packText(packer, name.data(), name.size());
    packValue(packer, value);
}

bool RecordEncoder::finish(unsigned char** bytes, int* length) {
    if (buffer_.length() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return false;
    *length = static_cast<int>(buffer_.length());
    *bytes = buffer_.release();
    return true;
}

}  // namespace kvx
