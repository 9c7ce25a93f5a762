#pragma once

#include <iostream>
#include <new>
#include <sstream>
#include <string>
#include <utility>

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"

/// Traces, warnings and error reports of the middleware.
///
/// A trace is written to standard output when the process's debug level is at least the trace's
/// level; a warning is always written to standard error. Neither adds a newline; both flush and
/// swallow exceptions of the stream.
namespace kvx {

/// The debug levels of the middleware's traces.
inline constexpr int kTraceWarnings = 1;
inline constexpr int kTraceCalls = 4;

/// `text`, or "NULL" for null.
inline const char* textOrNull(const char* text) {
    return text != nullptr ? text : "NULL";
}

/// Writes all `parts` to `stream` in one piece, so that lines of two threads do not mix.
template <class... Parts>
void writeGuarded(std::ostream& stream, const Parts&... parts) {
    try {
        std::ostringstream line;
        line.imbue(stream.getloc());  // the locale of `stream`, not the global one
        (line << ... << parts);
        stream << line.str();
    } catch (...) {
        // A trace that cannot be written is dropped.
    }
    try {
        stream.flush();
    } catch (...) {
        // So is one that cannot be flushed.
    }
}

/// Writes `parts` to standard output when the debug level is at least `level`. Any thread.
template <class... Parts>
void trace(int level, const Parts&... parts) {
    if (__ZembraLix_Debug_Level >= level) writeGuarded(std::cout, parts...);
}

/// Writes `parts` to standard output unless the debug level is 0; a negative level writes too. Any
/// thread.
template <class... Parts>
void traceUnlessQuiet(const Parts&... parts) {
    if (__ZembraLix_Debug_Level != 0) writeGuarded(std::cout, parts...);
}

/// Writes `parts` to standard error. Any thread.
template <class... Parts>
void warn(const Parts&... parts) {
    writeGuarded(std::cerr, parts...);
}

/// Reports `code` at `line` of `file`. Runs the process's error handler, which is user code. Any
/// thread.
inline void report(int code, const char* file, int line, const char* text = nullptr) {
    const CVekError error(code, file, line, text);
}

/// A new `Object`; without memory reports -220553 with `text` and returns null.
template <class Object, class... Arguments>
Object* newOrReport(const char* file, const char* text, Arguments&&... arguments) {
    auto* object = new (std::nothrow) Object(std::forward<Arguments>(arguments)...);
    if (object == nullptr) report(kNoMemory, file, 0, text);
    return object;
}

}  // namespace kvx
