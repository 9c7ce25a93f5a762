#include "mom/transport/CVekDeflater.h"

#include <cstdlib>
#include <limits>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/net/VekTrace.h"
#include "mom/transport/Zlib.h"

// The buffer and zlib's stream describe the same bytes: `next_out` stands at `total_out` in the
// buffer and `avail_out` is what remains of the capacity. Whoever changes one changes the other,
// and that happens only in the constructor and in `RDMoreSpace`.
//
// Every loop ends: it either gives zlib room, or reports why it cannot and returns.

namespace {

constexpr int kGrowth = 1024;  // bytes

int usableLevel(int level) {
    return level < 0 || level > 9 ? Z_DEFAULT_COMPRESSION : level;
}

unsigned char* zeroedBuffer(int size) {
    if (size < 0) return nullptr;
    // A buffer of no bytes is a buffer, not a failure.
    const auto bytes = static_cast<std::size_t>(size == 0 ? 1 : size);
    return static_cast<unsigned char*>(std::calloc(bytes, 1));
}

}  // namespace

CVekDeflater::CVekDeflater(int initialSize, int level) : m_buffer(zeroedBuffer(initialSize)) {
    if (m_buffer != nullptr) {
        m_capacity = initialSize;
    } else {
        report(kvx::kNoMemory, nullptr);
    }
    if (deflateInit_(&m_stream, usableLevel(level), kvx::kZlibVersion, sizeof m_stream) != Z_OK) {
        report(kvx::kInternalFailure, m_stream.msg);
    }
    m_stream.next_out = m_buffer;
    m_stream.avail_out = static_cast<uInt>(m_capacity);
}

CVekDeflater::~CVekDeflater() {
    const auto in = static_cast<double>(m_stream.total_in);
    const auto out = static_cast<double>(m_stream.total_out);
    kvx::trace(kvx::kTraceCalls, "Deflated ", m_stream.total_in, " bytes to ", m_stream.total_out,
               " bytes (", (in - out) * 100.0 / in, "%)\n");
    if (deflateEnd(&m_stream) != Z_OK) report(kvx::kInternalFailure, m_stream.msg);
    std::free(m_buffer);
}

void CVekDeflater::RDAddChunk(const void* data, int length) {
    if (m_buffer == nullptr) {
        report(kvx::kMissingArgument, nullptr);
        return;
    }
    if (length < 0 || (data == nullptr && length > 0)) {
        report(kvx::kInvalidArgument, nullptr);
        return;
    }
    m_stream.next_in = kvx::zlibInput(data);
    m_stream.avail_in = static_cast<uInt>(length);
    while (m_stream.avail_in != 0) {
        if (!haveRoom()) break;
        if (deflate(&m_stream, Z_NO_FLUSH) == Z_STREAM_ERROR) {
            report(kvx::kInternalFailure, m_stream.msg);
            break;
        }
    }
    m_stream.next_in = nullptr;
    m_stream.avail_in = 0;
}

void CVekDeflater::RDFinishCompression() {
    if (m_buffer == nullptr) {
        report(kvx::kMissingArgument, nullptr);
        return;
    }
    int result = Z_OK;
    while (result == Z_OK && haveRoom()) {
        result = deflate(&m_stream, Z_FINISH);
        if (result != Z_OK && result != Z_STREAM_END) report(kvx::kInternalFailure, m_stream.msg);
    }
}

int CVekDeflater::RDUnCompressedLength() {
    return static_cast<int>(m_stream.total_in);
}

int CVekDeflater::RDCompressedLength() {
    return static_cast<int>(m_stream.total_out);
}

void* CVekDeflater::RDCompressedData() {
    return m_buffer;
}

void* CVekDeflater::RDTakeCompressedData() {
    unsigned char* taken = m_buffer;
    m_buffer = nullptr;
    m_capacity = 0;
    m_stream.next_out = nullptr;
    m_stream.avail_out = 0;
    return taken;
}

void CVekDeflater::RDMoreSpace(int bytes) {
    unsigned char* grown = nullptr;
    if (m_capacity <= std::numeric_limits<int>::max() - bytes) {
        const auto size = static_cast<std::size_t>(m_capacity) + static_cast<std::size_t>(bytes);
        grown = static_cast<unsigned char*>(std::realloc(m_buffer, size));
    }
    if (grown == nullptr) {
        report(kvx::kInternalFailure, nullptr);
        return;
    }
    m_buffer = grown;
    m_capacity += bytes;
    m_stream.next_out = m_buffer + m_stream.total_out;
    m_stream.avail_out += static_cast<uInt>(bytes);
}

bool CVekDeflater::haveRoom() {
    if (m_stream.avail_out == 0) RDMoreSpace(kGrowth);
    return m_stream.avail_out != 0;
}

void CVekDeflater::report(int code, const char* text) {
    CVekError(code, "CVekDeflater", 0, text);
}
