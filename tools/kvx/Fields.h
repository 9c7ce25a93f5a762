#pragma once

#include <memory>
#include <string>

#include "rv/rv.h"
#include "tools/kvx/Options.h"

namespace kvx::tool {

/// The type names that a field may carry, for the help text.
std::string fieldTypes();

/// Appends the field that `text` describes, `name[:type]=value`. Returns what is wrong with it, or
/// an empty text.
std::string appendField(RvMsg& message, const std::string& text);

/// The datum that a command line describes. Null, with `problem` filled, when it describes none.
std::unique_ptr<RvDatum> buildPayload(const Payload& payload, std::string& problem);

}  // namespace kvx::tool
