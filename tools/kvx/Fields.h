#pragma once

#include <memory>
#include <string>

#include "rv/rv.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

/// The type names of fields, for the help text.
std::string fieldTypes();

/// Whether `text` is a valid subject, with or without wildcards.
[[nodiscard]] bool isSubject(const std::string& text);

/// Appends the field `text`, `name[:type]=value`. Returns the error, or an empty text.
std::string appendField(RvMsg& message, const std::string& text);

/// Why there is no payload, and the exit status.
struct PayloadProblem {
    std::string text;
    int status = kUsage;
};

/// The datum of a command line. Null, with `problem` set, when it is invalid or standard input
/// cannot be read.
std::unique_ptr<RvDatum> buildPayload(const Payload& payload, PayloadProblem& problem);

}  // namespace kvx::tool
