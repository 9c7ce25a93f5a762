#pragma once

#include "kvx/CInterface.h"
#include "kvx/Error.h"

/// What every call of the C interface has in common: its text for `kvx_error`, and that nothing
/// throws.
namespace kvx::detail {

/// Keeps the text of a failure for the calling thread. Returns `code`.
kvx_code failed(kvx_code code, const std::string& text) noexcept;
kvx_code failed(const Error& error) noexcept;
kvx_code outOfMemory(const char* why) noexcept;

inline kvx_code badArgument(const char* what, const char* call) noexcept {
    return failed({Errc::InvalidArgument, what, call});
}

/// `KVX_OK`, or the error.
template <class T>
kvx_code outcome(const Result<T>& result) noexcept {
    return result ? KVX_OK : failed(result.error());
}

/// Returns what `work` returns. What it throws can only be for want of memory or threads.
template <class Work>
kvx_code guarded(Work&& work) noexcept {
    try {
        return work();
    } catch (const std::exception& error) {
        return outOfMemory(error.what());
    } catch (...) {
        return outOfMemory("unknown");
    }
}

inline const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace kvx::detail
