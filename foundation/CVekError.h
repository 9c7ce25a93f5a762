#pragma once

#include "platform/Export.h"

/// Receives every error report. `text` may be null. Called on the reporting thread, possibly on
/// several threads at once. The foundation holds no lock meanwhile: a handler may call all of it,
/// `SetHandler` included. Errors that the handler itself reports go to standard error, and
/// exceptions that it throws are swallowed.
using VekErrorHandler = void (*)(int code, const char* file, int line, const char* text);

/// An error report: constructing one reports it. Any thread; never throws.
class KVX_API CVekError {
  public:
    /// `code` is a negative number of the catalogue, `file` the source file name without extension,
    /// `text` an optional addition (null allowed).
    CVekError(int code, const char* file, int line, const char* text = nullptr) noexcept;

    /// Sends all later reports to `handler` and returns the previous one. Null restores the
    /// default, which writes one line to standard error (control characters and bytes that are not
    /// UTF-8 are escaped): "CVekError <code> <file>:<line> <catalogue text>[: <text>]\n".
    static VekErrorHandler SetHandler(VekErrorHandler handler) noexcept;

    /// The catalogue text of `code`; "Unknown error" for a code that it does not have.
    static const char* CatalogueText(int code) noexcept;
};
