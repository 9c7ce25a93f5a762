#pragma once

#include "foundation/CVekError.h"
#include "mom/net/VekCodes.h"

namespace kvx {

/// Reports `code` at `line` of `file`. Runs the process's error handler, which is user code. Any
/// thread.
inline void report(int code, const char* file, int line, const char* text = nullptr) {
    const CVekError error(code, file, line, text);
}

}  // namespace kvx
