#include "kvx/CCall.h"

namespace kvx::detail {

namespace {

std::string& lastText() noexcept {
    thread_local std::string text;
    return text;
}

}  // namespace

kvx_code failed(kvx_code code, const std::string& text) noexcept {
    try {
        lastText() = text;
    } catch (...) {
        lastText().clear();
    }
    return code;
}

kvx_code failed(const Error& error) noexcept {
    try {
        return failed(static_cast<kvx_code>(error.code), error.message());
    } catch (...) {
        lastText().clear();
        return static_cast<kvx_code>(error.code);
    }
}

kvx_code outOfMemory(const char* why) noexcept {
    try {
        lastText() = std::string("out of memory: ") + why;
    } catch (...) {
        lastText().clear();
    }
    return KVX_NO_MEMORY;
}

}  // namespace kvx::detail

static_assert(KVX_BUSY == static_cast<int>(kvx::Errc::Busy));

const char* kvx_error() {
    return kvx::detail::lastText().c_str();
}
