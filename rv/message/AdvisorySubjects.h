#pragma once

#include "platform/Export.h"
#include "rv/message/SubjectView.h"

/// Which subjects mean advisories of the system. What an advisory is: rv/error/rvAdvisory.h.
namespace kvx::advisory {

/// True for "_RV.<INFO|WARN|ERROR>.SYSTEM" and everything below it: only the library and the daemon
/// publish there.
KVX_API bool isSystemSubject(SubjectView subject);

/// True also for a wildcard subject below "_RV" that covers such a subject: no client's message
/// passes the daemon on one.
KVX_API bool coversSystemSubject(SubjectView subject);

/// True for "_RV.WARN", "_RV.ERROR" and everything below them: what is written to standard error
/// when no listener takes it.
KVX_API bool isReportable(SubjectView subject);

}  // namespace kvx::advisory
