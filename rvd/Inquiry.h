#pragma once

#include <cstdint>
#include <optional>

#include "rv/message/SubjectView.h"
#include "rv/wire/Limits.h"
#include "rvd/DaemonSubject.h"

namespace kvx::rvd {

/// What a session asks the daemon: a request on one of the daemon's subjects.
struct Inquiry {
    DaemonSubject about;
    Subject reply;                   ///< of the answer
    std::optional<Subject> subject;  ///< "subject" of the request
    std::uint32_t limit = 0;         ///< "limit": the most rows that are wanted; 0: not said
    bool wantsFields = false;        ///< "fields": the shapes of messages, too
};

/// Reads a data message. Its payload, a nested message of options, may be missing; options that
/// are unknown or of another type are ignored. A subject is one of that type or its text. Nothing
/// without a sound subject for the answer, and when `about` is `Trace` or `Latency` without a
/// sound "subject".
/// Throws `std::bad_alloc`.
[[nodiscard]] std::optional<Inquiry> readInquiry(DaemonSubject about, wire::Bytes message);

}  // namespace kvx::rvd
