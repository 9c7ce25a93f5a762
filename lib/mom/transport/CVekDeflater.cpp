// The buffer and zlib's stream describe the same bytes: `next_out` is at `total_out` in the buffer
// and `avail_out` is the rest of the capacity. They change together, in the constructor, in
// `RDMoreSpace` and when the result is taken. Every loop ends: each step gives zlib room, or
// reports the failure and returns.

#include "mom/transport/CVekDeflater.h"

#include <cstdlib>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/transport/Zlib.h"
#include "mom/transport/ZlibBlock.h"

namespace {

constexpr int kGrowth = 1024;  // bytes

int usableLevel(int level) {
    return level < 0 || level > 9 ? Z_DEFAULT_COMPRESSION : level;
}

void reportDeflater(int code, const char* text) {
    CVekError(code, "CVekDeflater", 0, text);
}

unsigned char* zeroedBuffer(int size) {
    if (size < 0) return nullptr;
    // `calloc(0)` may return null, which would look like a failure.
    const auto bytes = static_cast<std::size_t>(size == 0 ? 1 : size);
    return static_cast<unsigned char*>(std::calloc(bytes, 1));
}

}  // namespace

struct CVekDeflater::State {
    z_stream stream{};
    unsigned char* buffer = nullptr;
    int capacity = 0;  // bytes

    bool holds(const void* data) const {
        const auto* at = static_cast<const unsigned char*>(data);
        return std::greater_equal<>()(at, buffer) && std::less<>()(at, buffer + capacity);
    }

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();
};

CVekDeflater::State::~State() {
    kvx::transport::traceDeflated(stream.total_in, stream.total_out);
    if (deflateEnd(&stream) != Z_OK) reportDeflater(kvx::kInternalFailure, stream.msg);
    std::free(buffer);
}

CVekDeflater::CVekDeflater(int initialSize, int level) : m_state(std::make_shared<State>()) {
    z_stream& stream = m_state->stream;
    m_state->buffer = zeroedBuffer(initialSize);
    if (m_state->buffer != nullptr) {
        m_state->capacity = initialSize;
    } else {
        reportDeflater(kvx::kNoMemory, nullptr);
    }
    if (deflateInit_(&stream, usableLevel(level), kvx::kZlibVersion, sizeof stream) != Z_OK) {
        reportDeflater(kvx::kInternalFailure, stream.msg);
    }
    stream.next_out = m_state->buffer;
    stream.avail_out = static_cast<uInt>(m_state->capacity);
}

CVekDeflater::~CVekDeflater() = default;

void CVekDeflater::RDAddChunk(const void* data, int length) {
    if (m_state->buffer == nullptr) return reportDeflater(kvx::kMissingArgument, nullptr);
    if (length < 0 || (data == nullptr && length > 0)) {
        return reportDeflater(kvx::kInvalidArgument, nullptr);
    }
    if (m_state->holds(data)) {
        // Growing the buffer would move the input.
        const auto* bytes = static_cast<const unsigned char*>(data);
        const std::vector<unsigned char> copy(bytes, bytes + length);
        return addChunk(copy.data(), length);
    }
    addChunk(data, length);
}

void CVekDeflater::addChunk(const void* data, int length) {
    z_stream& stream = m_state->stream;
    stream.next_in = kvx::zlibInput(data);
    stream.avail_in = static_cast<uInt>(length);
    while (stream.avail_in != 0) {
        if (!haveRoom()) break;
        if (deflate(&stream, Z_NO_FLUSH) == Z_STREAM_ERROR) {
            reportDeflater(kvx::kInternalFailure, stream.msg);
            break;
        }
    }
    stream.next_in = nullptr;
    stream.avail_in = 0;
}

void CVekDeflater::RDFinishCompression() {
    if (m_state->buffer == nullptr) return reportDeflater(kvx::kMissingArgument, nullptr);
    z_stream& stream = m_state->stream;
    int result = Z_OK;
    while (result == Z_OK && haveRoom()) {
        result = deflate(&stream, Z_FINISH);
        if (result != Z_OK && result != Z_STREAM_END) {
            reportDeflater(kvx::kInternalFailure, stream.msg);
        }
    }
}

int CVekDeflater::RDUnCompressedLength() {
    return static_cast<int>(m_state->stream.total_in);
}

int CVekDeflater::RDCompressedLength() {
    return static_cast<int>(m_state->stream.total_out);
}

void* CVekDeflater::RDCompressedData() {
    return m_state->buffer;
}

void* CVekDeflater::RDTakeCompressedData() {
    m_state->capacity = 0;
    m_state->stream.next_out = nullptr;
    m_state->stream.avail_out = 0;
    return std::exchange(m_state->buffer, nullptr);
}

void CVekDeflater::RDMoreSpace(int bytes) {
    const int capacity = m_state->capacity;
    unsigned char* grown = nullptr;
    if (capacity <= std::numeric_limits<int>::max() - bytes) {
        const auto size = static_cast<std::size_t>(capacity) + static_cast<std::size_t>(bytes);
        grown = static_cast<unsigned char*>(std::realloc(m_state->buffer, size));
    }
    if (grown == nullptr) return reportDeflater(kvx::kInternalFailure, nullptr);
    z_stream& stream = m_state->stream;
    m_state->buffer = grown;
    m_state->capacity += bytes;
    stream.next_out = grown + stream.total_out;
    stream.avail_out += static_cast<uInt>(bytes);
}

bool CVekDeflater::haveRoom() {
    if (m_state->stream.avail_out == 0) RDMoreSpace(kGrowth);
    return m_state->stream.avail_out != 0;
}
