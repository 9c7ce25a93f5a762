#pragma once

#include <mutex>

#include "platform/Export.h"

/// A lock that one thread holds at a time. Not recursive: do not run user code (a callback, an
/// error handler, a destructor) under it, since that may try to lock it again.
class KVX_API CVekMutex {
  public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};
