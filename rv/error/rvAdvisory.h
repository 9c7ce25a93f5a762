#pragma once

#include <cstdint>

#include "platform/Export.h"

/// Builds an advisory: the encoded subject "_RV.<class>.<source>.<name>" and the body with
/// "ADV_CLASS", "ADV_SOURCE", "ADV_NAME" and, unless `description` is null, "ADV_DESC". Returns 0;
/// 3 for a null text, a subject that cannot be encoded or texts of more than 489 characters
/// together; 9 for a class with a full stop; 8 when the body has no room. The texts may lie in
/// `body` or `subject`.
KVX_API int rv_BuildAdvisory(void* body, std::uint32_t bodyCapacity, const char* advClass,
                             const char* source, const char* name, const char* description,
                             void* subject, unsigned subjectCapacity);

/// The same for applications; refuses the source "SYSTEM" (3).
KVX_API int rv_BuildAppAdvisory(void* body, std::uint32_t bodyCapacity, const char* advClass,
                                const char* source, const char* name, const char* description,
                                void* subject, unsigned subjectCapacity);

/// Common constants of advisories, and the advisories of the library.
namespace kvx::advisory {

inline constexpr unsigned kBodyCapacity = 256;     // bytes of a built-in advisory's body
inline constexpr unsigned kSubjectCapacity = 500;  // bytes of its encoded subject

inline constexpr const char* kInfo = "INFO";
inline constexpr const char* kWarn = "WARN";
inline constexpr const char* kError = "ERROR";
inline constexpr const char* kSystem = "SYSTEM";

inline constexpr const char* kClassField = "ADV_CLASS";
inline constexpr const char* kSourceField = "ADV_SOURCE";
inline constexpr const char* kNameField = "ADV_NAME";
inline constexpr const char* kDescriptionField = "ADV_DESC";

inline constexpr const char* kNoMemoryName = "CLIENT.NOMEMORY";
inline constexpr const char* kDisconnectedName = "RVD.DISCONNECTED";
inline constexpr const char* kRefusedName = "RVD.REFUSED";
inline constexpr const char* kStarvationName = "EVENTLOOP.STARVATION";
inline constexpr const char* kFastProducerName = "CLIENT.FASTPRODUCER";
inline constexpr const char* kDataLossName = "DATALOSS";

inline constexpr const char* kNoMemorySubject = "_RV.ERROR.SYSTEM.CLIENT.NOMEMORY";
inline constexpr const char* kDisconnectedSubject = "_RV.WARN.SYSTEM.RVD.DISCONNECTED";
inline constexpr const char* kRefusedSubject = "_RV.ERROR.SYSTEM.RVD.REFUSED";
inline constexpr const char* kStarvationSubject = "_RV.WARN.SYSTEM.EVENTLOOP.STARVATION";
inline constexpr const char* kFastProducerWarnSubject = "_RV.WARN.SYSTEM.CLIENT.FASTPRODUCER";
inline constexpr const char* kFastProducerErrorSubject = "_RV.ERROR.SYSTEM.CLIENT.FASTPRODUCER";
inline constexpr const char* kDataLossSubject = "_RV.WARN.SYSTEM.DATALOSS";

/// The starvation advisory's lateness: unsigned, 4 bytes, milliseconds.
inline constexpr const char* kLatenessField = "fireoffset";
/// The lateness of a session timer, in milliseconds, above which the advisory is raised.
inline constexpr unsigned kStarvationThreshold = 5000;
/// Number of queued messages from which a publish raises the fast-producer warning.
inline constexpr unsigned kFastProducerThreshold = 1000;
/// One of this many fast-producer conditions is announced, beginning with the first.
inline constexpr unsigned kFastProducerRate = 100;

/// The heading of an advisory that no listener took, on standard error.
inline constexpr const char* kUnhandledHeading = "Rendezvous Error Not Handled by User Program:\n";

}  // namespace kvx::advisory
