#pragma once

#include "platform/Export.h"

/// The process-wide debug level: 0 is quiet; traces are written from thresholds such as 1 and 4 on.
extern KVX_API int __ZembraLix_Debug_Level;
