#pragma once

#include "platform/Export.h"

/// The process-wide debug level: 0 is quiet, traces come at thresholds such as 1 and 4.
extern KVX_API int __ZembraLix_Debug_Level;
