// The packer writes into the buffer that will be handed out: no tree of values is built, and
// nothing is copied a second time.

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

// What most fields take: a short name, a short text and their heads.
constexpr std::size_t kTypicalFieldBytes = 40;

}  // namespace

// A stream in the packer's sense, on memory from `malloc`.
class RecordEncoder::Buffer {
  public:
    explicit Buffer(std::size_t capacity) { growTo(capacity); }

    void write(const char* bytes, std::size_t length) {
        if (length > capacity_ - length_) growTo(std::max(length_ + length, 2 * capacity_));
        std::memcpy(bytes_.get() + length_, bytes, length);
        length_ += length;
    }

    std::size_t length() const { return length_; }
    unsigned char* release() { return bytes_.release(); }

  private:
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    void growTo(std::size_t capacity) {
        auto* grown = static_cast<unsigned char*>(std::realloc(bytes_.get(), capacity));
        if (grown == nullptr) throw std::bad_alloc();
        static_cast<void>(bytes_.release());
        bytes_.reset(grown);
        capacity_ = capacity;
    }

    std::unique_ptr<unsigned char, Free> bytes_;
    std::size_t length_ = 0;
    std::size_t capacity_ = 0;
};

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

RecordEncoder::RecordEncoder(std::size_t fields)
    : buffer_(std::make_unique<Buffer>(16 + fields * kTypicalFieldBytes)) {
    msgpack::packer<Buffer>(*buffer_).pack_array(static_cast<std::uint32_t>(fields));
}

RecordEncoder::~RecordEncoder() = default;

void RecordEncoder::add(const std::string& name, const CVekAtom& value) {
    msgpack::packer<Buffer> packer(*buffer_);
    packer.pack_array(2);
    packText(packer, name.data(), name.size());
    packValue(packer, value);
}

bool RecordEncoder::finish(unsigned char** bytes, int* length) {
    if (buffer_->length() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return false;
    *length = static_cast<int>(buffer_->length());
    *bytes = buffer_->release();
    return true;
}

}  // namespace kvx
