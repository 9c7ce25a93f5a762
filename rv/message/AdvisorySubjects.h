#pragma once

#include "platform/Export.h"
#include "rv/message/SubjectView.h"

/// Tests for the subjects of the system's advisories (rv/error/rvAdvisory.h).
namespace kvx::advisory {

/// True for "_RV.<INFO|WARN|ERROR>.SYSTEM" and everything below it: only the library and the daemon
/// deliver there.
KVX_API bool isSystemSubject(SubjectView subject);

/// True also for a wildcard subject below "_RV" that covers such a subject; the daemon drops client
/// messages on these.
KVX_API bool coversSystemSubject(SubjectView subject);

/// True for "_RV.WARN", "_RV.ERROR" and everything below them, which are written to standard error
/// when no listener takes them.
KVX_API bool isReportable(SubjectView subject);

}  // namespace kvx::advisory
