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

struct CVekInflater::State {
    z_stream stream{};

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
        if (inflateEnd(&stream) != Z_OK) reportInflater(stream.msg);
    }
};

CVekInflater::CVekInflater(const void* data, int length) : m_state(std::make_shared<State>()) {
    z_stream& stream = m_state->stream;
    stream.next_in = kvx::zlibInput(data);
    stream.avail_in = lengthOrNone(length);
    if (inflateInit_(&stream, kvx::kZlibVersion, sizeof stream) != Z_OK) reportInflater(stream.msg);
}

CVekInflater::~CVekInflater() = default;

void CVekInflater::RIInflateChunk(void* out, int room) {
    z_stream& stream = m_state->stream;
    stream.next_out = static_cast<Bytef*>(out);
    stream.avail_out = lengthOrNone(room);
    const int result = inflate(&stream, Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
        m_done = TRUE;
    } else if (result != Z_OK) {
        reportInflater(stream.msg);
    }
}

__boolean CVekInflater::RIIsDone() {
    return m_done;
}

int CVekInflater::RIInflatedLength() const {
    return static_cast<int>(m_state->stream.total_out);
}
