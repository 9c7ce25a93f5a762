#pragma once

/// Exports a symbol from a shared library of this project. Everything else is hidden.
#define KVX_API __attribute__((visibility("default")))
