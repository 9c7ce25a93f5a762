#pragma once

#include <memory>
#include <string>

#include "rv/rv.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

/// The type names that a field may carry, for the help text.
std::string fieldTypes();

/// Whether the bus takes `text` as a subject, with or without wildcards.
[[nodiscard]] bool isSubject(const std::string& text);

/// Appends the field that `text` describes, `name[:type]=value`. Returns what is wrong with it, or
/// an empty text.
std::string appendField(RvMsg& message, const std::string& text);

/// Why there is no payload, and the exit status that this is worth.
struct PayloadProblem {
    std::string text;
    int status = kUsage;
};

/// The datum that a command line describes. Null, with `problem` filled, when it describes none or
/// standard input cannot be read.
std::unique_ptr<RvDatum> buildPayload(const Payload& payload, PayloadProblem& problem);

}  // namespace kvx::tool
