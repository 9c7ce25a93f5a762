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
/// A trace goes to standard output, only when the process's debug level reaches the trace's own
/// level; a warning goes to standard error whatever the level. Neither adds an end of line, both
/// flush, and neither lets an exception of the stream escape.
namespace kvx {

/// The debug levels at which the middleware speaks.
inline constexpr int kTraceWarnings = 1;
inline constexpr int kTraceCalls = 4;

/// `text`, or "NULL" when there is none.
inline const char* textOrNull(const char* text) {
    return text != nullptr ? text : "NULL";
}

/// Writes all `parts` to `stream` as one piece, so that lines of two threads do not mingle.
template <class... Parts>
void writeGuarded(std::ostream& stream, const Parts&... parts) {
    try {
        std::ostringstream line;
        line.imbue(stream.getloc());  // as if written to `stream`, not as the global locale has it
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

/// Writes `parts` to standard output unless the debug level is 0: a negative level is not quiet.
/// Any thread.
template <class... Parts>
void traceUnlessQuiet(const Parts&... parts) {
    if (__ZembraLix_Debug_Level != 0) writeGuarded(std::cout, parts...);
}

/// Writes `parts` to standard error, whatever the debug level. Any thread.
template <class... Parts>
void warn(const Parts&... parts) {
    writeGuarded(std::cerr, parts...);
}

/// Reports `code` at `line` of `file`. Runs the process's error handler, which is user code. Any
/// thread.
inline void report(int code, const char* file, int line, const char* text = nullptr) {
    const CVekError error(code, file, line, text);
}

/// A new `Object`; null, and a report of -220553 with `text`, when there is no memory.
template <class Object, class... Arguments>
Object* newOrReport(const char* file, const char* text, Arguments&&... arguments) {
    auto* object = new (std::nothrow) Object(std::forward<Arguments>(arguments)...);
    if (object == nullptr) report(kNoMemory, file, 0, text);
    return object;
}

}  // namespace kvx
