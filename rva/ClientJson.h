#pragma once

#include <string>
#include <string_view>

#include "tools/bus/DatumJson.h"

namespace kvx::rva {

using bus::Json;

/// Reads what a client has sent, in a time that grows with its size only: an object of which no
/// part is nested too deeply to be walked, no object has so many keys that finding them is slow,
/// and no key is there twice. Else `problem` says why, and the result is null. Integers beyond 64
/// bits are `bus::wideInteger`.
[[nodiscard]] Json readClientJson(std::string_view text, std::string& problem);

}  // namespace kvx::rva
