#pragma once
#include "rvd/Log.h"
namespace kvx::bridge {
using rvd::Log;
using rvd::LogLevel;
}  // namespace kvx::bridge
