#pragma once

#include "platform/Export.h"

/// Names a process that a `CVekProcessMgr` started; copyable, and of no effect when it dies.
class KVX_API CVekProcessHandle {
  public:
    CVekProcessHandle() = default;
    explicit CVekProcessHandle(unsigned long pid) : m_pid(pid) {}

    /// 0 for a handle that names no process.
    unsigned long GetPID() const { return m_pid; }

  private:
    unsigned long m_pid = 0;
};

/// Starts and ends other programs. Any thread.
class KVX_API CVekProcessMgr {
  public:
    /// Starts `program` of `directory` with the null-terminated `arguments` (the first is the
    /// program's own name) and the environment of this process. With a null or empty directory the
    /// program is looked for as the shell does. The last two arguments are kept for callers that
    /// state them and change nothing. A program that is missing or cannot be run gives a handle
    /// with PID 0.
    CVekProcessHandle StartProcess(const char* directory, const char* program,
                                   const char* const* arguments, const char* reserved1,
                                   const char* reserved2);

    /// Ends the process. Returns false when it did end it, or found it ended already, and makes
    /// `handle` name no process; returns true, and leaves the handle alone, when it could not.
    bool KillProcess(CVekProcessHandle& handle);
};
