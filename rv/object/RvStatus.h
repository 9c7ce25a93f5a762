#pragma once

/// For programs that include it by this name; the class is of `rv/error`.

#include "rv/error/RvStatus.h"
