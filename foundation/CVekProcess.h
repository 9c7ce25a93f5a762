#pragma once

#include "platform/Export.h"

/// The current process. Any thread.
class KVX_API CVekProcess {
  public:
    static CVekProcess& Instance();
    CVekProcess(const CVekProcess&) = delete;
    CVekProcess& operator=(const CVekProcess&) = delete;

    unsigned long GetPID() const;

    /// Flushes standard output and standard error and ends the process with `status`, without
    /// running static destructors, which running threads may still depend on.
    [[noreturn]] void Exit(int status);

  private:
    CVekProcess() = default;
};
