#pragma once

/// Marks what a shared library of this project shows to its users. Everything else stays hidden.
#define KVX_API __attribute__((visibility("default")))
