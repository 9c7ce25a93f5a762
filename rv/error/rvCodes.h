#pragma once

/// The numbers of the four code tables, by name, and the client's version. Texts: rvErrors.h.
namespace kvx {

/// Major, minor and update number: sent to the daemon in every init message.
inline constexpr int kClientVersion[3] = {5, 3, 2};

/// Session codes (category 0).
namespace session_code {
inline constexpr int kOk = 0;
inline constexpr int kInitFailed = 1;
inline constexpr int kInvalidSession = 2;
inline constexpr int kInvalidArgument = 3;
inline constexpr int kVersionMismatch = 4;
inline constexpr int kServiceNotFound = 16;
inline constexpr int kNetworkNotFound = 17;
inline constexpr int kDaemonNotFound = 18;
inline constexpr int kNoMemory = 20;
inline constexpr int kInvalidSubject = 21;
inline constexpr int kNotConnected = 22;
inline constexpr int kInvalidListener = 23;
inline constexpr int kNoHostName = 24;
inline constexpr int kNoHostAddress = 25;
inline constexpr int kHostAddressUnknown = 26;
inline constexpr int kNotPermitted = 27;
}  // namespace session_code

/// Message codes (categories 3 and 4).
namespace message_code {
inline constexpr int kOk = 0;
inline constexpr int kNotInitialized = 1;
inline constexpr int kInvalidArgument = 3;
inline constexpr int kNoRoom = 8;
inline constexpr int kInvalidName = 9;
inline constexpr int kInvalidData = 10;
inline constexpr int kNotFound = 11;
}  // namespace message_code

/// Event-manager codes (category 2).
namespace event_code {
inline constexpr int kOk = 0;
inline constexpr int kInitFailed = 1;
inline constexpr int kInvalidId = 2;
inline constexpr int kInvalidSource = 3;
inline constexpr int kInvalidCondition = 4;
inline constexpr int kInvalidCallback = 5;
inline constexpr int kInvalidSignal = 6;
inline constexpr int kInvalidInterval = 7;
inline constexpr int kResourcesExceeded = 8;
inline constexpr int kNotSupported = 9;
inline constexpr int kNotInitialized = 10;
inline constexpr int kSynchronous = 11;
}  // namespace event_code

/// States of the daemon link's queue.
namespace queue_code {
inline constexpr int kOk = 0;
inline constexpr int kNoMemory = 1;
inline constexpr int kBadLimit = 2;
inline constexpr int kLimitExceeded = 3;
inline constexpr int kNothingToRead = 4;
inline constexpr int kTooLarge = 5;
inline constexpr int kEventFailure = 6;
inline constexpr int kPeerGone = 7;
inline constexpr int kWrongType = 8;
}  // namespace queue_code

}  // namespace kvx
