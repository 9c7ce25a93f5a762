#pragma once

/// Texts that the middleware keeps or hands out come from `malloc` and go to `free`: `kvx::Text`.
#include "platform/Memory.h"
