#pragma once

#include "platform/Export.h"

/// Receives every error report. `text` may be null. Called on the reporting thread, possibly on
/// several threads at once. The foundation holds no lock of its own meanwhile: a handler may call
/// anything of it, `SetHandler` included. What it reports itself is written to standard error, and
/// what it throws goes no further than the report.
using VekErrorHandler = void (*)(int code, const char* file, int line, const char* text);

/// An error report: constructing one reports it. Any thread; never throws.
class KVX_API CVekError {
  public:
    /// `code` is a negative number of the catalogue, `file` the source file name without extension,
    /// `text` an optional addition (null allowed).
    CVekError(int code, const char* file, int line, const char* text = nullptr) noexcept;

    /// Sends all later reports to `handler` and returns the one before. Null restores the default,
    /// which writes one line to standard error whatever the text holds (control characters and
    /// bytes that are no UTF-8 escaped): "CVekError <code> <file>:<line> <catalogue text>[:
    /// <text>]\n".
    static VekErrorHandler SetHandler(VekErrorHandler handler) noexcept;

    /// What the catalogue says about `code`; "Unknown error" for a code that it does not have.
    static const char* CatalogueText(int code) noexcept;
};
