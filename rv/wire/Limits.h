#pragma once

#include <cstddef>
#include <cstdint>

#include "rv/message/WireFormat.h"

/// The numbers that both ends of a daemon link agree on, each with its unit.
namespace kvx::wire {

using kvx::Bytes;

/// Protocol versions of the link. A daemon of this system offers 4; both ends also support 3.
inline constexpr std::uint32_t kProtocolV3 = 3;
inline constexpr std::uint32_t kProtocolV4 = 4;

inline constexpr std::size_t kGreetingSize = 12;        ///< bytes
inline constexpr std::size_t kParameterBlockSize = 64;  ///< bytes

/// The limit that each end proposes for either direction, and the only segment limit accepted, in
/// bytes.
inline constexpr std::uint32_t kLinkLimit = kMaxMessageBytes;
inline constexpr std::uint32_t kQueueType = 2;     ///< the only queue type
inline constexpr std::uint16_t kQueueVariant = 1;  ///< at offset 14 of a version 4 block
inline constexpr std::int16_t kV3MessageLimit =
    2000;                                    ///< messages; requested by a version 3 client
inline constexpr std::uint16_t kV3Word = 2;  ///< at offset 10 of a version 3 block

inline constexpr std::size_t kControlCapacity =
    1000;                                          ///< bytes of an init, listen or cancel message
inline constexpr unsigned kSubjectCapacity = 500;  ///< bytes, encoded; listening and publishing
inline constexpr unsigned kInboxCapacity = 100;    ///< bytes, encoded; inbox names

inline constexpr long kClientHandshakeMs =
    5'000;  ///< greeting, or the whole negotiation, at the client

inline constexpr long kDaemonHandshakeMs = 10'000;  ///< accept to the end of the first init
inline constexpr std::size_t kDaemonHandshakeBytes =
    4'096;  ///< bytes that a peer may send until then
inline constexpr long kDaemonProbeMs =
    180'000;  ///< silence after which the daemon sends a keepalive
inline constexpr long kDaemonSilenceMs =
    600'000;  ///< silence, with nothing taken either, after which the daemon closes

inline constexpr const char* kDefaultService = "7500";  ///< used for an empty service text
/// The default address of a daemon, for sessions and for `rvd`.
inline constexpr const char* kDefaultDaemon = "tcp:7500";

}  // namespace kvx::wire
