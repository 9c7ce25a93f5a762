#pragma once

#include <mutex>

#include "platform/Export.h"

/// A lock that one thread holds at a time. Not recursive: code of others (a callback, an error
/// handler, a destructor) is not to be run under it, because what it calls may come back for it.
class KVX_API CVekMutex {
  public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};
