#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kvx::beats {

/// What one heartbeat says about a running service.
struct Beat {
    std::string service;
    std::string domain;
    std::string host;
    std::int64_t pid = 0;
    /// The beat's type. False: a backup, or one that has become primary since its last beat. True:
    /// it is or has been primary; a beat never goes back.
    bool hasBeenPrimary = false;
};

/// The beat in a transport packet; nothing for bytes that are none.
///
/// A beat is a packet of version 0, plain and the only one of its batch, whose one record holds the
/// texts service, domain and host (of at most 255 bytes each), a pid above 0 and a type of 0 or 1.
/// Further fields are allowed: a later version may say more.
[[nodiscard]] std::optional<Beat> readBeat(std::span<const unsigned char> packet);

}  // namespace kvx::beats
