#pragma once

#include <mutex>

#include "platform/Export.h"

/// A lock that one thread holds at a time. Not recursive.
class KVX_API CVekMutex {
  public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};
