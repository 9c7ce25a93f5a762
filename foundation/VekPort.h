#pragma once

#include "platform/Export.h"

/// Suspends the calling thread for `milliseconds`.
KVX_API void VekSleep(unsigned int milliseconds);

/// The base name of the program file of process `pid`, untruncated: a new text that the caller
/// releases with `free`. Null when there is no such process or it may not be inspected.
KVX_API char* VekGetBinaryName(unsigned long pid);
