#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "rv/rv.h"
#include "tools/bus/DatumJson.h"

/// The map between messages and JSON that docs/http.md defines: without loss, in both directions.
namespace kvx::bus {

/// What may be sent, as a client describes it.
struct Outgoing {
    std::string subject;
    std::string reply;  ///< empty without one
    std::shared_ptr<const RvDatum> datum;
};

/// `{"subject","reply","type","fields"|"value"}`. `reply` is null without one.
[[nodiscard]] Json messageJson(const char* subject, const char* reply, const RvDatum& datum);

/// Reads such an object, or one whose types are to be inferred. Returns the error, or an empty
/// text.
[[nodiscard]] std::string readMessage(const Json& json, Outgoing& message);

/// Integers up to this, and down to its negative, are exact wherever JSON's numbers are doubles.
inline constexpr std::int64_t kMostExact = (std::int64_t{1} << 53) - 1;

/// An integer beyond 64 bits, which `digits` are. It is told apart from all other values: a field
/// that says that it is a real takes it, and to none other it is inferred.
[[nodiscard]] Json wideInteger(std::string_view digits);

/// A value alone, as `messageJson` has it.
[[nodiscard]] Json valueJson(const RvDatum& datum);

/// A text, or `{"base64"}` when it is not UTF-8.
[[nodiscard]] Json textJson(std::string_view text);

/// Whether `text` is a subject, with or without wildcards.
[[nodiscard]] bool isSubject(const std::string& text);

/// In one line, UTF-8.
[[nodiscard]] std::string lineOf(const Json& json);

}  // namespace kvx::bus
