#pragma once

#include "platform/Export.h"

/// Names a process that a `CVekProcessMgr` started. Copyable; destroying it has no effect.
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
    /// program is looked up as by a shell. The last two arguments are ignored. Returns a handle
    /// with PID 0 when the program is missing or cannot be run.
    CVekProcessHandle StartProcess(const char* directory, const char* program,
                                   const char* const* arguments, const char* reserved1,
                                   const char* reserved2);

    /// Ends the process. Returns false (success) when the process was ended or had ended already,
    /// and clears `handle`; returns true, and leaves `handle` unchanged, on failure.
    bool KillProcess(CVekProcessHandle& handle);
};
