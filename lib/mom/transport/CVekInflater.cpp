#include "mom/transport/CVekInflater.h"

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/transport/Zlib.h"

namespace {

void reportInflater(const char* text) {
    CVekError(kvx::kInternalFailure, "CVekInflater", 0, text);
}

uInt lengthOrNone(int length) {
    return length > 0 ? static_cast<uInt>(length) : 0;
}

}  // namespace

CVekInflater::CVekInflater(const void* data, int length) {
    m_stream.next_in = kvx::zlibInput(data);
    m_stream.avail_in = lengthOrNone(length);
    if (inflateInit_(&m_stream, kvx::kZlibVersion, sizeof m_stream) != Z_OK) {
        reportInflater(m_stream.msg);
    }
}

CVekInflater::~CVekInflater() {
    if (inflateEnd(&m_stream) != Z_OK) reportInflater(m_stream.msg);
}

void CVekInflater::RIInflateChunk(void* out, int room) {
    m_stream.next_out = static_cast<Bytef*>(out);
    m_stream.avail_out = lengthOrNone(room);
    const int result = inflate(&m_stream, Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
        m_done = TRUE;
    } else if (result != Z_OK) {
        reportInflater(m_stream.msg);
    }
}

__boolean CVekInflater::RIIsDone() {
    return m_done;
}

int CVekInflater::RIInflatedLength() const {
    return static_cast<int>(m_stream.total_out);
}
