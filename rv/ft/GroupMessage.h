#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rv/ft/Election.h"

/// The messages of a group: one form on one subject. No I/O.
///
/// Fields: "id" (string), "weight" (unsigned, 4 bytes), "start" (unsigned, 8 bytes: milliseconds
/// since the epoch, UTC), "state" (unsigned, 4 bytes: 1 waiting, 2 active, 3 leaving), "group"
/// (string), and "sent" (unsigned, 8 bytes: `Beat::sent`), which may be missing.

namespace kvx::ft {

/// `_RVFT.` and the group's name as one element, full stops as underscores. Nothing when the name
/// is not a valid element.
std::optional<std::string> groupSubject(std::string_view group);

/// A message buffer; empty when the texts are too long.
std::vector<unsigned char> encodeBeat(const Beat& beat, const std::string& group);

/// Nothing for any other message than a beat of exactly this group. `message` is a whole valid
/// message.
std::optional<Beat> decodeBeat(const void* message, const std::string& group);

}  // namespace kvx::ft
